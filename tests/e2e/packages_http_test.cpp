// One update with real parts: the source served by nginx on 127.0.0.1, the files fetched
// with curl, and a download cut part-way resumed with an HTTP range request.
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "update_source.h"

using namespace e2e;
using tavisim::FetchFaultKind;
using tavisim::RunResult;

namespace {

const char* find_nginx() {
  for (const char* p : {"/usr/sbin/nginx", "/usr/bin/nginx"}) {
    if (access(p, X_OK) == 0) return p;
  }
  return nullptr;
}

int free_port() {
  int s = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a);
  socklen_t len = sizeof a;
  getsockname(s, reinterpret_cast<sockaddr*>(&a), &len);
  int port = ntohs(a.sin_port);
  close(s);
  return port;
}

bool port_open(int port) {
  int s = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<uint16_t>(port));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bool ok = connect(s, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
  close(s);
  return ok;
}

}  // namespace

class HttpSourceTest : public SourceTest {
 protected:
  void TearDown() override {
    if (nginx_ > 0) {
      kill(nginx_, SIGTERM);
      waitpid(nginx_, nullptr, 0);
    }
    SourceTest::TearDown();
  }

  // Starts nginx in the foreground on a free loopback port, serving `root`, with an access
  // log that records each request's Range header and status.
  bool start_nginx(const std::string& root) {
    const char* nginx = find_nginx();
    if (nginx == nullptr) return false;
    std::string dir = scratch("nginx");
    port_ = free_port();
    std::string conf = "daemon off;\nmaster_process off;\nuser root;\npid " + dir + "/nginx.pid;\nerror_log " + dir +
                       "/error.log;\nevents { worker_connections 16; }\nhttp {\n"
                       "  log_format ranges '$request|$status|$http_range';\n"
                       "  access_log " + dir + "/access.log ranges;\n"
                       "  client_body_temp_path " + dir + "/body;\n  proxy_temp_path " + dir + "/proxy;\n"
                       "  fastcgi_temp_path " + dir + "/fastcgi;\n  uwsgi_temp_path " + dir + "/uwsgi;\n"
                       "  scgi_temp_path " + dir + "/scgi;\n"
                       "  server { listen 127.0.0.1:" + std::to_string(port_) + "; root " + root + "; }\n}\n";
    write_all(dir + "/nginx.conf", conf);
    access_log_ = dir + "/access.log";
    nginx_ = fork();
    if (nginx_ == 0) {
      execl(nginx, "nginx", "-p", dir.c_str(), "-c", (dir + "/nginx.conf").c_str(), static_cast<char*>(nullptr));
      _exit(127);
    }
    for (int i = 0; i < 100; i++) {
      if (port_open(port_)) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
  }

  pid_t nginx_ = -1;
  int port_ = 0;
  std::string access_log_;
};

TEST_F(HttpSourceTest, ACutDownloadResumesWithARangeRequest) {
  if (find_nginx() == nullptr) GTEST_SKIP() << "nginx is not installed (scripts/setup.sh installs nginx-light)";
  if (access("/usr/bin/curl", X_OK) != 0) GTEST_SKIP() << "curl is not installed";
  ASSERT_TRUE(start_nginx(source_)) << read_all(scratch("nginx") + "/error.log");

  std::string url = "http://127.0.0.1:" + std::to_string(port_) + "/aktuell";
  std::filesystem::create_directories(source_ + "/aktuell");
  std::string pkg = package_file("core-2.tpk", 300000, 'k');
  ToolResult pub = publish({"catalog", "--key", key("release") + ".key", "--out", source_ + "/aktuell", "--force",
                            "--version", "2", "--package", "core:base:" + pkg + ":tavi-x86_64"});
  ASSERT_EQ(pub.status, 0) << pub.output;
  device().config().fetch_curl = true;
  device().save_config();
  device().write_file("/etc/ota.conf", "quelle=" + url + "\n");
  device().add_fetch_fault("core-2.tpk", FetchFaultKind::stop, 123456, 1);

  RunResult r = device().run({"apply"});
  ASSERT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_EQ(r.out, "ota: source " + url +
                       "\nota: version here 0\nota: version there 2\nota: space 4096000000\nota: needed 1161788\n"
                       "ota: partial file, resuming at 123456\nota: hash ok core-2.tpk\nota: applying with tpk core\n"
                       "ota: READY FOR RESTART -- it will NOT\n     restart by itself. `reboot`.\n");
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(device().read_file("/system/FASSUNG").value_or(""), "00000002\n");

  std::string log = read_all(access_log_);
  EXPECT_NE(log.find("GET /aktuell/VERZEICHNIS HTTP/1.1|200|-"), std::string::npos) << log;
  EXPECT_NE(log.find("GET /aktuell/core-2.tpk HTTP/1.1|200|-"), std::string::npos) << log;
  EXPECT_NE(log.find("GET /aktuell/core-2.tpk HTTP/1.1|206|bytes=123456-"), std::string::npos) << log;
}
