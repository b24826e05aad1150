#include "echo_servers.h"

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include "connections/frame_reader.h"
#include "platform/errors.h"
#include "platform/local_server.h"
#include "platform/socket.h"
#include "platform/sync.h"
#include "platform/thread.h"
#include "skein/protocol.h"

namespace orlenda::bench {
namespace {

constexpr uint32_t kSendLimitMs = 5000;
constexpr uint32_t kPingIntervalMs = 500;  // the service's default

// Builds the reply to one frame copy (back-pointer, frame, slack) into `reply`.
std::size_t Answer(const BlobRef& copy, uint32_t length, uint8_t* reply) {
  const uint8_t* frame = copy.data() + FrameReader::kBackPointer;
  uint32_t code;
  std::memcpy(&code, frame + 4, 4);
  const uint32_t size = code == SK_FRAME_WRITE ? SK_FRAME_WRITE_REPLY_SIZE : SK_FRAME_REPLY_SIZE;
  std::memcpy(reply, &size, 4);
  std::memcpy(reply + 4, frame + 4, 12);  // code and tag
  std::memset(reply + 16, 0, 4);          // SKR_SUCCESS
  const uint32_t written = length - SK_FRAME_HEADER_SIZE;
  std::memcpy(reply + 20, &written, 4);
  return size;
}

class TcpEcho final : public EchoServer {
 public:
  bool Start() {
    if (platform::OpenTcpSocket(&listener_) != platform::kErrorSuccess ||
        platform::BindIpv4(listener_, 0x7F000001u, 0) != platform::kErrorSuccess ||
        platform::ListenOn(listener_) != platform::kErrorSuccess ||
        platform::SetNonBlocking(listener_) != platform::kErrorSuccess ||
        platform::LocalPort(listener_, &port_) != platform::kErrorSuccess || wake_.Open() != platform::kErrorSuccess) {
      return false;
    }
    thread_ = std::thread([this] { Serve(); });
    return true;
  }
  ~TcpEcho() override {
    stop_ = true;
    wake_.Wake();
    if (thread_.joinable()) thread_.join();
  }
  uint16_t port() const override { return port_; }

 private:
  struct Client : FrameReader::Sink {
    explicit Client(platform::Socket s) : socket(std::move(s)), reader(this), last_send(platform::TickCountMs()) {}
    void OnFrame(BlobRef copy, uint32_t length) override {
      uint8_t reply[SK_FRAME_WRITE_REPLY_SIZE];
      Send(reply, Answer(copy, length, reply));
    }
    void Send(const uint8_t* bytes, std::size_t size) {
      std::size_t sent = 0;
      platform::SendAll(socket, bytes, size, kSendLimitMs, &sent);
      last_send = platform::TickCountMs();
    }
    platform::Socket socket;
    FrameReader reader;
    uint32_t last_send;
  };

  // Pings the clients whose send silence passed the interval, as the transport wants; the time
  // until the next one is due.
  static uint32_t PingDue(std::vector<std::unique_ptr<Client>>& clients) {
    static const uint8_t kPing[4] = {0, 0, 0, 0};
    uint32_t wait = platform::kInfinite;
    for (auto& c : clients) {
      const uint32_t silent = platform::TickCountMs() - c->last_send;
      if (silent >= kPingIntervalMs) c->Send(kPing, sizeof(kPing));
      const uint32_t due = silent >= kPingIntervalMs ? kPingIntervalMs : kPingIntervalMs - silent;
      if (due < wait) wait = due;
    }
    return wait;
  }

  void Serve() {
    std::vector<std::unique_ptr<Client>> clients;
    std::vector<uint8_t> buffer(65536);
    while (!stop_) {
      std::vector<platform::SocketWait> waits{{listener_.handle(), true, false, false, false},
                                              {wake_.handle(), true, false, false, false}};
      for (auto& c : clients) waits.push_back({c->socket.handle(), true, false, false, false});
      std::size_t ready = 0;
      platform::WaitSockets(waits.data(), waits.size(), PingDue(clients), &ready);
      if (waits[1].readable) wake_.Drain();
      for (std::size_t i = clients.size(); i-- > 0;) {
        if (!waits[2 + i].readable) continue;
        std::size_t got = 0;
        const uint32_t error = platform::Receive(clients[i]->socket, buffer.data(), buffer.size(), &got);
        if (error == platform::kErrorWouldBlock) continue;
        if (error != platform::kErrorSuccess || got == 0 || !clients[i]->reader.Feed(buffer.data(), got, clients[i].get())) {
          clients.erase(clients.begin() + static_cast<std::ptrdiff_t>(i));
        }
      }
      platform::Socket accepted;
      uint32_t peer = 0;
      if (waits[0].readable && platform::AcceptClient(listener_, &accepted, &peer) == platform::kErrorSuccess &&
          platform::SetNonBlocking(accepted) == platform::kErrorSuccess && clients.size() + 2 < platform::kMaxWaitSockets) {
        platform::SetNoDelay(accepted);
        clients.push_back(std::make_unique<Client>(std::move(accepted)));
      }
    }
  }

  platform::Socket listener_;
  platform::WakeSocket wake_;
  uint16_t port_ = 0;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

class LocalEcho final : public EchoServer, private platform::LocalServer::Handler {
 public:
  explicit LocalEcho(const char16_t* name) : name_(name) {}
  void Start() {
    thread_ = std::thread([this] {
      local_.Run(name_, &stop_, this);
      for (Client* c : clients_) {  // the clients left are ours now, to close on this thread
        platform::CloseLocalChannel(c->channel);
        delete c;
      }
    });
  }
  ~LocalEcho() override {
    stop_.Set();
    local_.Wake();
    if (thread_.joinable()) thread_.join();
  }
  uint16_t port() const override { return 0; }

 private:
  struct Client : FrameReader::Sink {
    explicit Client(platform::LocalChannel* c) : channel(c), reader(this) {}
    void OnFrame(BlobRef copy, uint32_t length) override {
      uint8_t reply[SK_FRAME_WRITE_REPLY_SIZE];
      platform::WriteLocalChannel(channel, reply, Answer(copy, length, reply), kSendLimitMs);
    }
    platform::LocalChannel* channel;
    FrameReader reader;
  };

  void* OnConnect(platform::LocalChannel* channel) override {
    clients_.push_back(new Client(channel));
    return clients_.back();
  }
  bool OnBytes(void* context, const uint8_t* bytes, std::size_t size) override {
    auto* client = static_cast<Client*>(context);
    return client->reader.Feed(bytes, size, client);
  }
  void OnLost(void* context) override {
    auto* client = static_cast<Client*>(context);
    for (auto it = clients_.begin(); it != clients_.end(); ++it) {
      if (*it == client) {
        clients_.erase(it);
        break;
      }
    }
    platform::CloseLocalChannel(client->channel);
    delete client;
  }
  void OnFailure(platform::LocalServerFailure, uint32_t) override {}

  const char16_t* name_;
  platform::Event stop_{platform::ResetMode::kManual, false};
  platform::LocalServer local_;
  std::vector<Client*> clients_;  // the loop thread's
  std::thread thread_;
};

}  // namespace

std::unique_ptr<EchoServer> EchoServer::StartTcp() {
  auto server = std::make_unique<TcpEcho>();
  return server->Start() ? std::move(server) : nullptr;
}

std::unique_ptr<EchoServer> EchoServer::StartLocal(const char16_t* name) {
  auto server = std::make_unique<LocalEcho>(name);
  server->Start();
  return server;
}

}  // namespace orlenda::bench
