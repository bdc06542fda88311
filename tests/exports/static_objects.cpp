// A client application that ends while all of its objects work: they have static lifetime, and so
// are destroyed after main, beside threads that still use the library.
//
//   static_objects RTSP_URL MILLISECONDS            ends in main, after having played so long
//   static_objects RTSP_URL MILLISECONDS thread     in another thread
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "cms/cms.h"

namespace {

using std::chrono::milliseconds;

// Never called: nobody asks this server for anything.
int NoPassword(const std::string&, std::string&) {
  return 0;
}

class Servers {
 public:
  Servers() {
    tcpConfig_.recvFrameSize = 100;
    tcp_ = CreateTcpServer(&tcpConfig_);
    cms::tHttpServerConfig config;
    config.passwordLookup = NoPassword;
    http_ = CreateHttpServer(&config);
    if (StartTcpServer(tcp_) == 0 || StartHttpServer(http_) == 0) {
      std::abort();
    }
  }
  ~Servers() {
    DestroyTcpServer(tcp_);
    CloseHttpServer(http_);
    DestroyHttpServer(http_);
  }
  unsigned short TcpPort() const { return tcpConfig_.localPort; }

 private:
  cms::tTcpServerConfig tcpConfig_;
  CTcpServer* tcp_ = nullptr;
  HttpServer* http_ = nullptr;
};

// Receives what it sends to itself, on its group's threads.
class Echo : public UDPClientBase {
 public:
  ~Echo() override { OnStopUDPClient(); }
  void Start() {
    _UDPCLIENT_CONFIG config;
    config.recvContext = this;
    config.recvCallback = [](void* self, char* data, int length) {
      static_cast<Echo*>(self)->OnSend(data, length);
    };
    config.remoteAddress = 0x7F000001;
    config.localPort = config.remotePort = FreePort();
    SetConfig(config);
    if (OnStartUDPClient() == 0 || EachClientGroupTable::Instance().Register(this, 1) == 0) {
      std::abort();
    }
    char first[] = "x";
    OnSend(first, 1);
  }

 private:
  static unsigned short FreePort() {
    class Probe : public UDPClientBase {
     public:
      using UDPClientBase::UDPClientBase;
    } probe;
    return probe.OnStartUDPClient() != 0 ? probe.BoundPort() : static_cast<unsigned short>(0);
  }
};

// What an application's threads use while the process ends.
void UseTheLibrary() {
  std::string digest;
  CMSMakeMD5(digest, "text");
  cms::TickMilliseconds();
  cms::CurrentFileIo().Exists("/");
  std::uint64_t free = 0;
  GetDiskFreeSpaceEx2(L"/", &free, nullptr, nullptr);
  CMSLogExA(cms::CMS_LOG_DEBUG, "%s", digest.c_str());
  CCMSBigNum number;
  number.FromDecimal("123456789012345678901234567890");
  CMSRTSPClient unused;
  cms::stRTSPClientConfig config;
  config.path = "rtsp://127.0.0.1:1/nobody";
  unused.SetConfig(&config);
}

class Worker : public Thread {
 public:
  ~Worker() override { stop(); }
  void run() override {
    while (!IsStopRequested()) {
      UseTheLibrary();
    }
  }
};

Servers servers;
Echo echo;
Worker worker;
CMSRTSPClient camera;

class Peer : public TCPClientBase {
 public:
  ~Peer() override { OnStopTCPClient(true); }
} peer;

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fputs("usage: static_objects RTSP_URL MILLISECONDS [thread]\n", stderr);
    return 2;
  }
  CMSSetLog(nullptr, cms::CMS_LOG_ERROR);
  std::thread([] {
    for (;;) {
      UseTheLibrary();
    }
  }).detach();
  echo.Start();
  worker.start();
  if (peer.OnStartTCPClient(0x7F000001, servers.TcpPort(), 1) == 0) {
    return 1;
  }
  cms::stRTSPClientConfig config;
  config.path = argv[1];
  config.transport = cms::kRtspTransportInterleaved;
  if (!camera.SetConfig(&config) || !camera.AllocChannelData(1) || !camera.OpenStream() ||
      !camera.Play()) {
    std::fprintf(stderr, "%s\n", camera.GetConnectionStatus().detail.c_str());
    return 1;
  }
  camera.SetMustDecode(1);
  camera.EnableDecode(0, 0);
  const milliseconds left(std::atoi(argv[2]));
  if (argc > 3) {
    std::thread([left] {
      std::this_thread::sleep_for(left);
      std::exit(0);
    }).join();  // main is still here while the process ends
  }
  std::this_thread::sleep_for(left);
  return 0;
}
