// The release's sources served as a real update server would serve them: nginx on a free
// port of 127.0.0.1, static files only, Range requests answered, nothing compressed on
// the way. Its access log says what every device fetched.

#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <sstream>
#include <thread>

#include "fleet.h"
#include "host.h"
#include "tavisim/config.h"

namespace tavisim::fleet {

namespace {

// nginx is tried on this many free ports before the fleet gives up: another program may
// take a port between the moment it is found free and nginx's bind.
constexpr int kPortTries = 5;
constexpr auto kStartTimeout = std::chrono::seconds(10);

const char* find_nginx() {
  for (const char* p : {"/usr/sbin/nginx", "/usr/bin/nginx"})
    if (access(p, X_OK) == 0) return p;
  return nullptr;
}

int free_port() {
  int s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (s < 0) return 0;
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  int port = 0;
  if (bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
      getsockname(s, reinterpret_cast<sockaddr*>(&a), &len) == 0)
    port = ntohs(a.sin_port);
  close(s);
  return port;
}

bool port_open(int port) {
  int s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (s < 0) return false;
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<uint16_t>(port));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bool ok = connect(s, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
  close(s);
  return ok;
}

// A path inside double quotes of nginx's configuration.
std::string quoted(const std::string& path) {
  if (path.find_first_of("\"\\$;{}\n") != std::string::npos)
    throw SimError("nginx cannot be given this path: " + path);
  return "\"" + path + "\"";
}

std::string configuration(const Release& r, const std::string& dir, int port) {
  std::ostringstream c;
  c << "daemon off;\nmaster_process off;\nuser root;\nworker_processes 1;\n";
  c << "pid " << quoted(dir + "/nginx.pid") << ";\nerror_log " << quoted(dir + "/error.log") << ";\n";
  c << "events { worker_connections 1024; }\n";
  c << "http {\n";
  c << "  log_format fleet '$uri|$status|$body_bytes_sent|$http_range';\n";
  c << "  access_log " << quoted(dir + "/access.log") << " fleet;\n";
  for (const char* t : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"})
    c << "  " << t << "_temp_path " << quoted(dir + "/" + t) << ";\n";
  // The bytes a device checks are the bytes on disk: no compression, no type guessing.
  c << "  gzip off;\n  types { }\n  default_type application/octet-stream;\n";
  c << "  server {\n    listen 127.0.0.1:" << port << ";\n";
  c << "    location /aktuell/ { alias " << quoted(r.package_dir + "/") << "; }\n";
  if (r.has_system) c << "    location /system/stable/ { alias " << quoted(r.system_dir + "/") << "; }\n";
  c << "    location / { return 404; }\n  }\n}\n";
  return c.str();
}

}  // namespace

Server start_server(const Release& r, const std::string& scratch) {
  const char* nginx = find_nginx();
  if (!nginx) throw SimError("nginx is not installed (scripts/setup.sh installs nginx-light)");
  Server s;
  s.dir = scratch;
  make_host_dirs(s.dir);
  for (int attempt = 0; attempt < kPortTries; attempt++) {
    int port = free_port();
    if (port == 0) continue;
    write_host_file(s.dir + "/nginx.conf", configuration(r, s.dir, port));
    ToolRun run;
    run.file = nginx;
    run.argv = {"nginx", "-p", s.dir, "-c", s.dir + "/nginx.conf"};
    pid_t pid = start_tool(run, nullptr, nullptr);
    if (pid < 0) throw SimError(std::string("cannot start ") + nginx);
    auto deadline = std::chrono::steady_clock::now() + kStartTimeout;
    bool exited = false;
    while (std::chrono::steady_clock::now() < deadline) {
      if (port_open(port)) {
        s.pid = pid;
        s.port = port;
        return s;
      }
      int status;
      if (waitpid(pid, &status, WNOHANG) == pid) {
        exited = true;
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (!exited) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
    }
  }
  throw SimError("nginx did not start: " + read_host_file(s.dir + "/error.log").value_or("(no error log)"));
}

TrafficByPath stop_server(Server& s) {
  if (s.pid > 0) {
    kill(s.pid, SIGTERM);
    while (waitpid(s.pid, nullptr, 0) < 0 && errno == EINTR) {
    }
    s.pid = -1;
  }
  TrafficByPath traffic;
  std::istringstream in(read_host_file(s.dir + "/access.log").value_or(""));
  std::string line;
  while (std::getline(in, line)) {
    // uri|status|bytes|range
    size_t a = line.find('|');
    size_t b = a == std::string::npos ? a : line.find('|', a + 1);
    size_t c = b == std::string::npos ? b : line.find('|', b + 1);
    if (c == std::string::npos) continue;
    uint64_t status = 0, bytes = 0;
    if (!parse_u64(line.substr(a + 1, b - a - 1), status) || !parse_u64(line.substr(b + 1, c - b - 1), bytes)) continue;
    Traffic& t = traffic[line.substr(0, a)];
    t.requests++;
    t.range_requests += line.substr(c + 1) != "-";
    t.failed += status >= 400;
    t.bytes += bytes;
  }
  return traffic;
}

}  // namespace tavisim::fleet
