// Orlenda client library, the C++ face: a thin owner of an SkClient (client.h says what every call
// does). Results are the same 32-bit codes; nothing throws.
//
//   skein::Client client;
//   if (client.ConnectTcp("pos-server:2291") == SKR_SUCCESS && client.Open("LOOP1") == SKR_SUCCESS) {
//     client.Ioctl(SK_PORT_LOCK, skein::Dword(1));
//     client.Write("hello");
//   }
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <utility>

#include "skein/client.h"

namespace skein {

// A control's DWORD parameter (little-endian).
inline std::string Dword(uint32_t value) {
  std::string bytes(4, '\0');
  for (int i = 0; i < 4; ++i) bytes[i] = static_cast<char>(value >> (8 * i));
  return bytes;
}

class Client {
 public:
  // Called on the library's reader thread: the event's identifier and data.
  using EventHandler = std::function<void(uint32_t event, std::string_view data)>;

  Client() { SkDefaultOptions(&options_); }
  ~Client() { Disconnect(); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  // Set before connecting.
  SkClientOptions& options() { return options_; }
  void OnEvent(EventHandler handler) { handler_ = std::move(handler); }

  uint32_t ConnectLocal(const char* pipe_name = nullptr) {
    Disconnect();
    return SkConnectLocal(pipe_name, Prepared(), &client_);
  }
  uint32_t ConnectTcp(const std::string& host_port) {
    Disconnect();
    return SkConnectTcp(host_port.c_str(), Prepared(), &client_);
  }
  void Disconnect() {
    SkDisconnect(client_);
    client_ = nullptr;
  }
  bool connected() const { return client_ != nullptr && SkIsConnected(client_) != 0; }
  SkClient* get() const { return client_; }

  uint32_t Open(const std::string& name) { return SkOpen(client_, name.c_str()); }
  uint32_t Close() { return SkClose(client_); }
  uint32_t Write(std::string_view data, uint32_t* written = nullptr) {
    return SkWrite(client_, data.data(), static_cast<uint32_t>(data.size()), written);
  }
  uint32_t Ioctl(uint32_t code, std::string_view input = {}, std::string* output = nullptr) {
    void* block = nullptr;
    uint32_t size = 0;
    const uint32_t result = SkIoctl(client_, code, input.data(), static_cast<uint32_t>(input.size()),
                                    output != nullptr ? &block : nullptr, &size);
    if (output != nullptr) output->assign(static_cast<const char*>(block), block != nullptr ? size : 0);
    SkFree(block);
    return result;
  }
  uint32_t RegisterCallback(uint32_t event) { return SkRegisterCallback(client_, event); }
  uint32_t UnregisterCallback(uint32_t event) { return SkUnregisterCallback(client_, event); }

  // "SKR_NOT_LOCKED (0x80010000)"; a code without a name shows as its number alone.
  static std::string Describe(uint32_t result) {
    char number[16];
    static const char kDigits[] = "0123456789abcdef";
    number[0] = '0';
    number[1] = 'x';
    for (int i = 0; i < 8; ++i) number[2 + i] = kDigits[(result >> (28 - 4 * i)) & 0xF];
    number[10] = '\0';
    const char* name = SkResultName(result);
    return name != nullptr ? std::string(name) + " (" + number + ")" : std::string(number);
  }

 private:
  static void Deliver(void* self, uint32_t event, const void* data, uint32_t size) {
    auto* client = static_cast<Client*>(self);
    if (client->handler_) client->handler_(event, std::string_view(static_cast<const char*>(data), size));
  }
  const SkClientOptions* Prepared() {
    options_.on_event = &Client::Deliver;
    options_.context = this;
    return &options_;
  }

  SkClientOptions options_;
  EventHandler handler_;
  SkClient* client_ = nullptr;
};

}  // namespace skein
