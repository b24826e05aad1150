// The C API over Connection.
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "common/wide_string.h"
#include "connection.h"
#include "skein/client.h"

struct SkClient {
  explicit SkClient(const SkClientOptions& options) : connection(options) {}
  orlenda::client::Connection connection;
};

namespace {

using orlenda::client::Connection;
using orlenda::client::Le32;

// Makes a client and connects it with `connect`; the client is freed again on failure.
template <class Connect>
uint32_t NewClient(const SkClientOptions* options, SkClient** out, Connect connect) {
  if (out == nullptr) return SKC_INVALID_ARGUMENT;
  *out = nullptr;
  SkClientOptions chosen;
  SkDefaultOptions(&chosen);
  if (options != nullptr) chosen = *options;
  SkClient* client = new (std::nothrow) SkClient(chosen);
  if (client == nullptr) return SKC_OUT_OF_MEMORY;
  const uint32_t result = connect(client->connection);
  if (result != SKR_SUCCESS) {
    delete client;
    return result;
  }
  *out = client;
  return SKR_SUCCESS;
}

uint32_t SimpleCall(SkClient* client, uint32_t code, const void* body, std::size_t size) {
  if (client == nullptr) return SKC_INVALID_ARGUMENT;
  Connection::Reply reply;
  return client->connection.Call(code, nullptr, 0, body, size, &reply);
}

uint32_t EventCall(SkClient* client, uint32_t code, uint32_t event) {
  uint8_t body[4];
  orlenda::client::PutLe32(body, event);
  return SimpleCall(client, code, body, sizeof(body));
}

}  // namespace

extern "C" {

void SkDefaultOptions(SkClientOptions* options) {
  if (options == nullptr) return;
  std::memset(options, 0, sizeof(*options));
  options->call_timeout_ms = SKC_DEFAULT_CALL_TIMEOUT_MS;
  options->connect_timeout_ms = SKC_DEFAULT_CONNECT_TIMEOUT_MS;
  options->ping_interval_ms = SKC_DEFAULT_PING_INTERVAL_MS;
  options->keepalive_timeout_ms = SKC_DEFAULT_KEEPALIVE_TIMEOUT_MS;
  options->max_reply_size = SKC_DEFAULT_MAX_REPLY_SIZE;
}

uint32_t SkConnectLocal(const char* pipe_name, const SkClientOptions* options, SkClient** client) {
  const orlenda::WString name = orlenda::Utf8ToWide(pipe_name != nullptr ? pipe_name : SKEIN_PIPE_NAME);
  return NewClient(options, client, [&](Connection& connection) { return connection.ConnectLocal(name.c_str()); });
}

uint32_t SkConnectTcp(const char* host_port, const SkClientOptions* options, SkClient** client) {
  if (host_port == nullptr || host_port[0] == '\0') return SKC_INVALID_ARGUMENT;
  std::string host = host_port;
  uint32_t port = SK_TCP_DEFAULT_PORT;
  const std::size_t colon = host.rfind(':');
  if (colon != std::string::npos) {
    char* end = nullptr;
    port = static_cast<uint32_t>(std::strtoul(host.c_str() + colon + 1, &end, 10));
    if (colon + 1 == host.size() || *end != '\0' || port == 0 || port > 0xFFFF) return SKC_INVALID_ARGUMENT;
    host.resize(colon);
  }
  return NewClient(options, client, [&](Connection& connection) {
    return connection.ConnectTcp(host.c_str(), static_cast<uint16_t>(port));
  });
}

void SkDisconnect(SkClient* client) { delete client; }

uint32_t SkOpen(SkClient* client, const char* name) {
  if (name == nullptr) return SKC_INVALID_ARGUMENT;
  const orlenda::WString wide = orlenda::Utf8ToWide(name);
  // UTF-16LE with its terminator; the service reads up to the terminator.
  std::string body;
  body.reserve((wide.size() + 1) * 2);
  for (char16_t unit : wide) {
    body.push_back(static_cast<char>(unit & 0xFF));
    body.push_back(static_cast<char>(unit >> 8));
  }
  body.append(2, '\0');
  return SimpleCall(client, SK_FRAME_OPEN, body.data(), body.size());
}

uint32_t SkClose(SkClient* client) { return SimpleCall(client, SK_FRAME_CLOSE, nullptr, 0); }

uint32_t SkWrite(SkClient* client, const void* data, uint32_t size, uint32_t* written) {
  if (written != nullptr) *written = 0;
  if (client == nullptr || (data == nullptr && size != 0)) return SKC_INVALID_ARGUMENT;
  Connection::Reply reply;
  uint32_t result = client->connection.Call(SK_FRAME_WRITE, nullptr, 0, data, size, &reply);
  if ((result & 0xFFFF0000u) == 0x80FE0000u) return result;  // the library's own: no reply came
  if (reply.data.size() < 4) return SKC_BAD_REPLY;
  if (written != nullptr) *written = Le32(reply.data.data());
  return result;
}

uint32_t SkIoctl(SkClient* client, uint32_t code, const void* input, uint32_t input_size, void** output,
                 uint32_t* output_size) {
  if (output != nullptr) *output = nullptr;
  if (output_size != nullptr) *output_size = 0;
  if (client == nullptr || (input == nullptr && input_size != 0)) return SKC_INVALID_ARGUMENT;
  uint8_t head[4];
  orlenda::client::PutLe32(head, code);
  Connection::Reply reply;
  const uint32_t result = client->connection.Call(SK_FRAME_IOCTL, head, sizeof(head), input, input_size, &reply);
  if (!reply.data.empty() && output != nullptr) {
    void* block = std::malloc(reply.data.size());
    if (block == nullptr) return SKC_OUT_OF_MEMORY;
    std::memcpy(block, reply.data.data(), reply.data.size());
    *output = block;
    if (output_size != nullptr) *output_size = static_cast<uint32_t>(reply.data.size());
  }
  return result;
}

uint32_t SkRegisterCallback(SkClient* client, uint32_t event) { return EventCall(client, SK_FRAME_REGISTER, event); }

uint32_t SkUnregisterCallback(SkClient* client, uint32_t event) {
  return EventCall(client, SK_FRAME_UNREGISTER, event);
}

void SkFree(void* block) { std::free(block); }

int SkIsConnected(const SkClient* client) {
  return client != nullptr && client->connection.lost() == SKR_SUCCESS ? 1 : 0;
}

const char* SkResultName(uint32_t result) {
  switch (result) {
#define SKEIN_NAME_CASE(name, value) \
  case value:                        \
    return #name;
    SKEIN_RESULT_CODES(SKEIN_NAME_CASE)
    SKEIN_CLIENT_RESULT_CODES(SKEIN_NAME_CASE)
#undef SKEIN_NAME_CASE
    default:
      return nullptr;
  }
}

}  // extern "C"
