// Checks of the SIMULATOR's kernel model, made with tavisim-probe (tests/sim/probe),
// a tiny program that makes the tavi calls exactly as the device program makes them and
// prints the raw results. These tests say nothing about ota; they pin what the simulated
// kernel answers for the calls that no ota command makes yet.

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sstream>

#include "signing.h"
#include "config_text.h"
#include "device_test.h"

namespace tavisim {
namespace {

std::vector<std::string> words_of(const std::string& text) {
  std::vector<std::string> w;
  std::istringstream in(text);
  std::string word;
  while (in >> word) w.push_back(word);
  return w;
}

bool has_line(const std::string& out, const std::string& line) {
  return ("\n" + out).find("\n" + line + "\n") != std::string::npos;
}

class ProbeTest : public DeviceTest {
 protected:
  std::string program() const override { return TAVISIM_PROBE; }
  RunResult probe(const std::string& words, const RunOptions& o = {}) { return device().run(words_of(words), o); }
  RunResult probe(const std::vector<std::string>& words, const RunOptions& o = {}) { return device().run(words, o); }
};

// ---- spawn and wait4

TEST_F(ProbeTest, SpawnPassesTheCountedWordsToAConfiguredProgramAndWaitGivesItsCode) {
  std::string log = device().root() + "/tmp/args";
  std::string script = scratch("bin") + "/tool";
  write_host(script,
             "#!/bin/sh\n"
             "for a in \"$@\"; do printf '[%s]\\n' \"$a\"; done > \"$TAVI_ROOT/tmp/args\"\n"
             "pwd >> \"$TAVI_ROOT/tmp/args\"\n"
             "exit 3\n",
             true);
  device().set_program("/bin/tool", script);
  RunResult r = probe(std::vector<std::string>{"spawn", "/bin/tool", "a", "b c", ""});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(has_line(r.out, "wait 0")) << r.out;
  EXPECT_TRUE(has_line(r.out, "code 3")) << r.out;
  EXPECT_EQ(read_all(log), "[a]\n[b c]\n[]\n" + device().root() + "\n");
  auto spawns = events_of(r.events, "spawn");
  ASSERT_EQ(spawns.size(), 1u);
  EXPECT_EQ(spawns[0].fields[0], "exit=3");
  EXPECT_EQ(spawns[0].fields[1], "/bin/tool");
  EXPECT_EQ(spawns[0].fields[2], "a");
  EXPECT_EQ(spawns[0].fields[3], "b c");
  EXPECT_EQ(spawns[0].fields[4], "");
  EXPECT_EQ(spawns[0].fields.size(), 5u);

  // The count bounds the words: nothing behind it is read.
  r = probe("spawn-count 2 /bin/tool x y z");
  EXPECT_EQ(read_all(log), "[x]\n" + device().root() + "\n");
}

TEST_F(ProbeTest, AConfiguredProgramWritesWhereItsCallerWrites) {
  std::string script = scratch("bin") + "/say";
  write_host(script, "#!/bin/sh\necho \"out: $1\"\necho \"err: $1\" >&2\nexit 0\n", true);
  device().set_program("/bin/sntp", script);  // a configured program replaces a model
  RunResult r = probe("spawn /bin/sntp hello");
  EXPECT_EQ(r.out, "out: hello\nspawn 6000000\nwait 0\ncode 0\n");
  EXPECT_EQ(r.err, "err: hello\n");
  EXPECT_FALSE(device().exists("/system/clock.stand"));
  // A configured program that does not exist cannot be started.
  device().set_program("/bin/sntp", scratch("bin") + "/missing");
  r = probe("spawn /bin/sntp");
  EXPECT_EQ(r.out, "spawn -2\n");
}

TEST_F(ProbeTest, APathNeitherModelledNorConfiguredDoesNotStart) {
  RunResult r = probe("spawn /bin/nothing x");
  EXPECT_TRUE(has_line(r.out, "spawn -2")) << r.out;
  auto spawns = events_of(r.events, "spawn");
  ASSERT_EQ(spawns.size(), 1u);
  EXPECT_EQ(spawns[0].fields[0], "result=-2");
}

TEST_F(ProbeTest, WaitForAnIdThatWasNeverHandedOutFails) {
  RunResult r = probe("wait 6999999");
  EXPECT_TRUE(has_line(r.out, "wait -10")) << r.out;  // ECHILD
}

TEST_F(ProbeTest, TheSntpModelMarksTheClockSetOrFailsAsConfigured) {
  RunResult r = probe("spawn /bin/sntp");
  EXPECT_TRUE(has_line(r.out, "code 0")) << r.out;
  EXPECT_EQ(device().read_file("/system/clock.stand"), "S\n");
  device().remove("/system/clock.stand");
  device().config().sntp_fail = 1;
  r = probe("spawn /bin/sntp");
  EXPECT_TRUE(has_line(r.out, "code 1")) << r.out;
  EXPECT_FALSE(device().exists("/system/clock.stand"));
}

TEST_F(ProbeTest, TheRootsctlModelRecordsTheAppliedFile) {
  device().write_file("/system/new/roots.pem", "-----BEGIN CERTIFICATE-----\n");
  RunResult r = probe("spawn /bin/rootsctl apply /system/new/roots.pem");
  EXPECT_TRUE(has_line(r.out, "code 0")) << r.out;
  auto ev = events_of(r.events, "rootsctl");
  ASSERT_EQ(ev.size(), 1u);
  EXPECT_EQ(ev[0].value("size"), "28");
  EXPECT_EQ(ev[0].value("sha256").size(), 64u);
  EXPECT_EQ(read_all(device().dir() + "/rootsctl/applied.pem"), "-----BEGIN CERTIFICATE-----\n");
  r = probe("spawn /bin/rootsctl apply /system/new/missing.pem");
  EXPECT_TRUE(has_line(r.out, "code 1")) << r.out;
}

// ---- the fetch model

class FetchProbe : public ProbeTest {
 protected:
  void SetUp() override {
    ProbeTest::SetUp();
    repo = scratch("repo");
    write_host(repo + "/VERZEICHNIS", "OTA2\nfassung\t7\n");
    payload = std::string(1000, '\0');
    for (size_t i = 0; i < payload.size(); i++) payload[i] = static_cast<char>('a' + i % 26);
    write_host(repo + "/test/pkg.tpk", payload);
    device().add_repo("http://u.example/aktuell", repo);
    device().make_dir("/tmp/ota");
  }
  RunResult fetch(const std::string& rest) { return probe("spawn /bin/fetch " + rest); }
  std::string repo, payload;
};

TEST_F(FetchProbe, FetchesFromTheRepositoryByLongestPrefix) {
  RunResult r = fetch("-o /tmp/ota/VERZEICHNIS -n dev1 http://u.example/aktuell/VERZEICHNIS");
  EXPECT_TRUE(has_line(r.out, "code 0")) << r.out;
  EXPECT_EQ(device().read_file("/tmp/ota/VERZEICHNIS"), "OTA2\nfassung\t7\n");
  // The double slash of a source that ends in "/" is kept and resolves on the host.
  device().remove("/tmp/ota/VERZEICHNIS");
  r = fetch("-o /tmp/ota/VERZEICHNIS http://u.example/aktuell//VERZEICHNIS");
  EXPECT_TRUE(has_line(r.out, "code 0")) << r.out;
  EXPECT_EQ(device().read_file("/tmp/ota/VERZEICHNIS"), "OTA2\nfassung\t7\n");
  r = fetch("-o /tmp/ota/pkg.tpk http://u.example/aktuell/test/pkg.tpk");
  EXPECT_EQ(device().read_file("/tmp/ota/pkg.tpk"), payload);
}

TEST_F(FetchProbe, AMissingFileOrAnUnknownPrefixExitsWithOne) {
  RunResult r = fetch("-o /tmp/ota/x http://u.example/aktuell/NOPE");
  EXPECT_TRUE(has_line(r.out, "code 1")) << r.out;
  r = fetch("-o /tmp/ota/x http://other.example/VERZEICHNIS");
  EXPECT_TRUE(has_line(r.out, "code 1")) << r.out;
  EXPECT_FALSE(device().exists("/tmp/ota/x"));
  r = fetch("-o");
  EXPECT_TRUE(has_line(r.out, "code 2")) << r.out;
}

TEST_F(FetchProbe, ResumeAppendsFromTheOffset) {
  device().write_file("/tmp/ota/pkg.tpk", payload.substr(0, 400));
  RunResult r = fetch("-o /tmp/ota/pkg.tpk -b 400 http://u.example/aktuell/test/pkg.tpk");
  EXPECT_TRUE(has_line(r.out, "code 0")) << r.out;
  EXPECT_EQ(device().read_file("/tmp/ota/pkg.tpk"), payload);
  r = fetch("-o /tmp/ota/pkg.tpk -b 5000 http://u.example/aktuell/test/pkg.tpk");
  EXPECT_TRUE(has_line(r.out, "code 1")) << r.out;
}

TEST_F(FetchProbe, FailNTimesThenSucceed) {
  device().add_fetch_fault("pkg.tpk", FetchFaultKind::fail, 0, 2);
  for (int i = 0; i < 2; i++) {
    RunResult r = fetch("-o /tmp/ota/pkg.tpk http://u.example/aktuell/test/pkg.tpk");
    EXPECT_TRUE(has_line(r.out, "code 1")) << r.out;
    EXPECT_FALSE(device().exists("/tmp/ota/pkg.tpk"));
    EXPECT_EQ(events_of(r.events, "fault").size(), 1u);
  }
  RunResult r = fetch("-o /tmp/ota/pkg.tpk http://u.example/aktuell/test/pkg.tpk");
  EXPECT_TRUE(has_line(r.out, "code 0")) << r.out;
  EXPECT_EQ(device().read_file("/tmp/ota/pkg.tpk"), payload);
}

TEST_F(FetchProbe, StopWritesOnlyTheFirstBytesAndAResumeCompletesTheFile) {
  device().add_fetch_fault("pkg.tpk", FetchFaultKind::stop, 400);
  RunResult r = fetch("-o /tmp/ota/pkg.tpk http://u.example/aktuell/test/pkg.tpk");
  EXPECT_TRUE(has_line(r.out, "code 1")) << r.out;
  EXPECT_EQ(device().read_file("/tmp/ota/pkg.tpk"), payload.substr(0, 400));
  r = fetch("-o /tmp/ota/pkg.tpk -b 400 http://u.example/aktuell/test/pkg.tpk");
  EXPECT_TRUE(has_line(r.out, "code 0")) << r.out;
  EXPECT_EQ(device().read_file("/tmp/ota/pkg.tpk"), payload);
}

TEST_F(FetchProbe, CorruptAndLengthFaultsChangeWhatIsServed) {
  device().add_fetch_fault("pkg.tpk", FetchFaultKind::corrupt, 17);
  fetch("-o /tmp/ota/pkg.tpk http://u.example/aktuell/test/pkg.tpk");
  auto got = device().read_file("/tmp/ota/pkg.tpk");
  ASSERT_TRUE(got.has_value());
  ASSERT_EQ(got->size(), payload.size());
  for (size_t i = 0; i < payload.size(); i++) {
    if (i != 17) {
      ASSERT_EQ((*got)[i], payload[i]) << i;
    }
  }
  EXPECT_NE((*got)[17], payload[17]);

  device().clear_faults();
  device().add_fetch_fault("pkg.tpk", FetchFaultKind::length, 200);
  fetch("-o /tmp/ota/pkg.tpk http://u.example/aktuell/test/pkg.tpk");
  EXPECT_EQ(device().read_file("/tmp/ota/pkg.tpk")->size(), 1200u);
  device().clear_faults();
  device().add_fetch_fault("pkg.tpk", FetchFaultKind::length, -300);
  fetch("-o /tmp/ota/pkg.tpk http://u.example/aktuell/test/pkg.tpk");
  EXPECT_EQ(device().read_file("/tmp/ota/pkg.tpk"), payload.substr(0, 700));
}

TEST_F(FetchProbe, AHeldFetchWaitsForReleaseWhileOtherProcessesAreServed) {
  device().add_fetch_fault("pkg.tpk", FetchFaultKind::hold);
  CommandId held = device().start(words_of("spawn /bin/fetch -o /tmp/ota/pkg.tpk http://u.example/aktuell/test/pkg.tpk"));
  ASSERT_TRUE(device().serve_until_held("pkg.tpk", 20));
  EXPECT_TRUE(device().held("pkg.tpk"));
  EXPECT_FALSE(device().finished(held));
  EXPECT_FALSE(device().exists("/tmp/ota/pkg.tpk"));
  // Another command runs meanwhile and sees the held process in the task table.
  RunResult other = probe("tasks128");
  EXPECT_EQ(other.status, 0);
  // The held process (started first) in slot 1, the asking one in slot 2.
  auto starts = events_of(device().events(), "start");
  ASSERT_EQ(starts.size(), 2u);
  EXPECT_EQ(other.out, "slot 1 state 1 pid " + std::to_string(starts[0].pid) + " name ota\nslot 2 state 1 pid " +
                           std::to_string(other.pid) + " name ota\n");
  device().release("pkg.tpk");
  RunResult r = device().wait(held);
  EXPECT_TRUE(has_line(r.out, "code 0")) << r.out;
  EXPECT_EQ(device().read_file("/tmp/ota/pkg.tpk"), payload);
  EXPECT_EQ(events_of(r.events, "hold").size(), 1u);
  EXPECT_EQ(events_of(r.events, "release").size(), 1u);
  // The hold was for one fetch only.
  r = fetch("-o /tmp/ota/pkg.tpk http://u.example/aktuell/test/pkg.tpk");
  EXPECT_TRUE(has_line(r.out, "code 0")) << r.out;
}

// Real downloads with curl, from a web server on 127.0.0.1 only.
class CurlFetchProbe : public FetchProbe {
 protected:
  void SetUp() override {
    FetchProbe::SetUp();
    if (system("command -v python3 >/dev/null && command -v curl >/dev/null") != 0)
      GTEST_SKIP() << "python3 or curl missing";
    // A small web server that answers byte ranges, as a download server for resumes does.
    std::string script = scratch("web") + "/serve.py";
    write_host(script,
               "import http.server, os, re, sys\n"
               "root = sys.argv[1]\n"
               "class H(http.server.BaseHTTPRequestHandler):\n"
               "    def do_GET(self):\n"
               "        path = os.path.join(root, self.path.lstrip('/'))\n"
               "        if not os.path.isfile(path):\n"
               "            self.send_error(404)\n"
               "            return\n"
               "        data = open(path, 'rb').read()\n"
               "        m = re.match(r'bytes=(\\d+)-$', self.headers.get('Range', ''))\n"
               "        if m and int(m.group(1)) < len(data):\n"
               "            start = int(m.group(1))\n"
               "            self.send_response(206)\n"
               "            self.send_header('Content-Range', 'bytes %d-%d/%d' % (start, len(data) - 1, len(data)))\n"
               "            data = data[start:]\n"
               "        else:\n"
               "            self.send_response(200)\n"
               "        self.send_header('Content-Length', str(len(data)))\n"
               "        self.end_headers()\n"
               "        self.wfile.write(data)\n"
               "    def log_message(self, *args):\n"
               "        pass\n"
               "server = http.server.HTTPServer(('127.0.0.1', 0), H)\n"
               "print('serving on port', server.server_address[1], flush=True)\n"
               "server.serve_forever()\n");
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    server_ = fork();
    if (server_ == 0) {
      dup2(p[1], 1);
      close(p[0]);
      execlp("python3", "python3", script.c_str(), repo.c_str(), (char*)nullptr);
      _exit(127);
    }
    close(p[1]);
    std::string first;
    char c;
    while (read(p[0], &c, 1) == 1 && c != '\n') first += c;
    close(p[0]);
    size_t at = first.find(" port ");
    ASSERT_NE(at, std::string::npos) << first;
    port_ = std::stoi(first.substr(at + 6));
    device().config().fetch_curl = true;
  }
  void TearDown() override {
    if (server_ > 0) {
      kill(server_, SIGTERM);
      waitpid(server_, nullptr, 0);
    }
    FetchProbe::TearDown();
  }
  std::string url(const std::string& path) { return "http://127.0.0.1:" + std::to_string(port_) + "/" + path; }
  pid_t server_ = -1;
  int port_ = 0;
};

TEST_F(CurlFetchProbe, DownloadsAndResumesFromALocalServer) {
  RunResult r = fetch("-o /tmp/ota/pkg.tpk " + url("test/pkg.tpk"));
  EXPECT_TRUE(has_line(r.out, "code 0")) << r.out;
  EXPECT_EQ(device().read_file("/tmp/ota/pkg.tpk"), payload);
  device().write_file("/tmp/ota/pkg.tpk", payload.substr(0, 300));
  r = fetch("-o /tmp/ota/pkg.tpk -b 300 " + url("test/pkg.tpk"));
  EXPECT_TRUE(has_line(r.out, "code 0")) << r.out;
  EXPECT_EQ(device().read_file("/tmp/ota/pkg.tpk"), payload);
  r = fetch("-o /tmp/ota/none " + url("missing"));
  EXPECT_TRUE(has_line(r.out, "code 1")) << r.out;
}

TEST_F(CurlFetchProbe, RefusesEveryOtherHost) {
  RunResult r = fetch("-o /tmp/ota/VERZEICHNIS http://u.example/aktuell/VERZEICHNIS");
  EXPECT_TRUE(has_line(r.out, "code 1")) << r.out;
  auto faults = events_of(r.events, "fault");
  ASSERT_EQ(faults.size(), 1u);
  EXPECT_EQ(faults[0].fields[2], "refused");
}

// ---- the installer model

class TpkProbe : public ProbeTest {
 protected:
  const TestKey trusted = TestKey::from_seed(51);
  const TestKey spare = TestKey::from_seed(52);
  void SetUp() override {
    ProbeTest::SetUp();
    device().write_file("/system/schluessel.pub", trusted.pub_bytes());
    write_index("alpha\t5\talpha-5.tpk\t" + std::string(64, 'a') + "\nbeta\t5\tbeta-5.tpk\t" + std::string(64, 'b') +
                "\n");
    device().write_file("/tmp/ota/alpha-5.tpk", "A");
    device().write_file("/tmp/ota/beta-5.tpk", "B");
  }
  // INDEX and its signature by the given key (the trusted key when none is named).
  void write_index(const std::string& text, const TestKey* signer = nullptr) {
    device().write_file("/tmp/ota/INDEX", text);
    device().write_file("/tmp/ota/INDEX.sig", (signer ? *signer : trusted).sign(text));
  }
  std::string code_of(const std::string& words) {
    RunResult r = probe("spawn /bin/tpk " + words);
    size_t p = r.out.find("code ");
    return p == std::string::npos ? r.out : r.out.substr(p + 5, r.out.find('\n', p) - p - 5);
  }
};

TEST_F(TpkProbe, CatalogUpdateTrialAndRollback) {
  EXPECT_EQ(code_of("catalog /tmp/ota /tmp/ota/CATALOG"), "0");
  EXPECT_EQ(device().read_file("/tmp/ota/CATALOG"), "alpha\t5\t0\nbeta\t5\t0\n");

  EXPECT_EQ(code_of("update alpha --source /tmp/ota"), "0");
  EXPECT_EQ(device().read_file("/system/ERPROBUNG"), "gen=00000001 vor=00000000 v=00 ok=0\n");
  EXPECT_EQ(device().read_file("/system/AKTUELL"), "00000001\n");
  EXPECT_EQ(code_of("update beta --source /tmp/ota"), "0");  // joins the open trial
  EXPECT_EQ(device().read_file("/system/ERPROBUNG"), "gen=00000001 vor=00000000 v=00 ok=0\n");
  EXPECT_EQ(code_of("catalog /tmp/ota /tmp/ota/CATALOG"), "0");
  EXPECT_EQ(device().read_file("/tmp/ota/CATALOG"), "alpha\t5\t1\nbeta\t5\t1\n");

  EXPECT_EQ(code_of("trial ok"), "0");
  EXPECT_EQ(device().read_file("/system/ERPROBUNG"), "gen=00000001 vor=00000000 v=00 ok=1\n");

  // A confirmed trial: the next update opens generation 2.
  write_index("alpha\t6\talpha-6.tpk\t" + std::string(64, 'a') + "\n");
  device().write_file("/tmp/ota/alpha-6.tpk", "A6");
  EXPECT_EQ(code_of("update alpha --source /tmp/ota"), "0");
  EXPECT_EQ(device().read_file("/system/ERPROBUNG"), "gen=00000002 vor=00000001 v=00 ok=0\n");
  EXPECT_EQ(device().read_file("/system/tpk/installed"), "alpha\t6\nbeta\t5\n");

  EXPECT_EQ(code_of("rollback 00000001"), "0");
  EXPECT_EQ(device().read_file("/system/tpk/installed"), "alpha\t5\nbeta\t5\n");
  EXPECT_EQ(device().read_file("/system/AKTUELL"), "00000001\n");
  EXPECT_FALSE(device().exists("/system/ERPROBUNG"));
  EXPECT_EQ(code_of("rollback 00000042"), "2");
  EXPECT_EQ(code_of("rebuild"), "0");
  EXPECT_EQ(code_of("trial ok"), "1");  // no record
}

TEST_F(TpkProbe, AnIndexNotSignedByTheDevicesKeysIsNeitherCataloguedNorInstalled) {
  // Changed on the way: the signature no longer fits.
  std::string index = device().read_file("/tmp/ota/INDEX").value_or("");
  device().write_file("/tmp/ota/INDEX", index + "gamma\t5\tgamma-5.tpk\t" + std::string(64, 'c') + "\n");
  device().remove("/tmp/ota/CATALOG");
  RunResult r = probe("spawn /bin/tpk catalog /tmp/ota /tmp/ota/CATALOG");
  EXPECT_EQ(r.out, "spawn 6000000\nwait 0\ncode 5\n");
  EXPECT_FALSE(device().exists("/tmp/ota/CATALOG"));
  auto refused = events_of(r.events, "tpk");
  ASSERT_EQ(refused.size(), 1u);
  EXPECT_EQ(refused[0].fields, (std::vector<std::string>{"index-refused", "/tmp/ota/INDEX"}));

  EXPECT_EQ(code_of("update alpha --source /tmp/ota"), "5");
  EXPECT_FALSE(device().exists("/system/ERPROBUNG"));
  EXPECT_FALSE(device().exists("/system/tpk/installed"));

  // Signed by a key the device does not hold, or a signature file too short: the same.
  write_index(index, &spare);
  EXPECT_EQ(code_of("catalog /tmp/ota /tmp/ota/CATALOG"), "5");
  device().write_file("/tmp/ota/INDEX.sig", trusted.sign(index).substr(0, 63));
  EXPECT_EQ(code_of("update alpha --source /tmp/ota"), "5");
  // No trusted key at all: nothing is believed.
  write_index(index);
  device().remove("/system/schluessel.pub");
  EXPECT_EQ(code_of("catalog /tmp/ota /tmp/ota/CATALOG"), "5");
}

TEST_F(TpkProbe, TheSpareKeyVouchesForTheIndexToo) {
  device().write_file("/system/ersatz.pub", spare.pub_bytes());
  std::string index = device().read_file("/tmp/ota/INDEX").value_or("");
  write_index(index, &spare);
  EXPECT_EQ(code_of("catalog /tmp/ota /tmp/ota/CATALOG"), "0");
  EXPECT_EQ(device().read_file("/tmp/ota/CATALOG"), "alpha\t5\t0\nbeta\t5\t0\n");
  EXPECT_EQ(code_of("update alpha --source /tmp/ota"), "0");
  // Only the first 32 bytes of a key file and the first 64 of a signature file count.
  device().write_file("/system/ersatz.pub", spare.pub_bytes() + "tail");
  device().write_file("/tmp/ota/INDEX.sig", spare.sign(index) + "tail");
  EXPECT_EQ(code_of("update beta --source /tmp/ota"), "0");
}

TEST_F(TpkProbe, TheTrustingModelChecksNoSignature) {
  device().config().tpk_index_signed = false;
  device().write_file("/tmp/ota/INDEX.sig", std::string(64, 's'));
  EXPECT_EQ(code_of("catalog /tmp/ota /tmp/ota/CATALOG"), "0");
  EXPECT_EQ(device().read_file("/tmp/ota/CATALOG"), "alpha\t5\t0\nbeta\t5\t0\n");
  EXPECT_EQ(code_of("update alpha --source /tmp/ota"), "0");
  EXPECT_EQ(tavisim::format_config(device().config()), config_text_with("tpk-index trusted\n"));
}

TEST_F(TpkProbe, UpdateFailuresAsConfiguredAndForMissingPackages) {
  device().config().tpk_fail["update:beta"] = 7;
  EXPECT_EQ(code_of("update alpha --source /tmp/ota"), "0");
  EXPECT_EQ(code_of("update beta --source /tmp/ota"), "7");
  EXPECT_EQ(device().read_file("/system/tpk/installed"), "alpha\t5\n");
  EXPECT_EQ(code_of("update gamma --source /tmp/ota"), "2");
  device().remove("/tmp/ota/alpha-5.tpk");
  EXPECT_EQ(code_of("update alpha --source /tmp/ota"), "3");
  device().config().tpk_fail["catalog"] = 9;
  EXPECT_EQ(code_of("catalog /tmp/ota /tmp/ota/CATALOG"), "9");
}

TEST_F(TpkProbe, AnExactCatalogTextReplacesTheModel) {
  std::string text = "alpha\t5\t1\nfoobar\tx\t1 \n";
  write_host(scratch("c") + "/CATALOG", text);
  device().config().tpk_catalog_file = scratch("c") + "/CATALOG";
  EXPECT_EQ(code_of("catalog /tmp/ota /tmp/ota/CATALOG"), "0");
  EXPECT_EQ(device().read_file("/tmp/ota/CATALOG"), text);
}

// ---- task table

TEST_F(ProbeTest, TheTaskTableHoldsConfiguredTasksAndEveryOtaProcess) {
  device().add_task("desktop", 3, 0);
  device().add_task("glogin", 40, 0);
  device().add_task("abcdefghijklmnop", 7, 0);
  RunResult r = probe("getpid , tasks128 , named glogin , named desktop");
  std::string pid_line = r.out.substr(0, r.out.find('\n'));
  std::string pid = pid_line.substr(4);
  EXPECT_TRUE(has_line(r.out, "slot 1 state 1 pid " + pid + " name ota")) << r.out;
  EXPECT_TRUE(has_line(r.out, "slot 3 state 1 pid 5000003 name desktop")) << r.out;
  EXPECT_TRUE(has_line(r.out, "slot 7 state 1 pid 5000007 name abcdefghijklmnop")) << r.out;
  EXPECT_TRUE(has_line(r.out, "slot 40 state 1 pid 5000040 name glogin")) << r.out;
  // The health check's scan looks at 32 slots only.
  EXPECT_TRUE(has_line(r.out, "named 0")) << r.out;
  EXPECT_TRUE(has_line(r.out, "named 1")) << r.out;
}

TEST_F(ProbeTest, NamesArePackedLittleEndianInTwoWords) {
  device().add_task("desktop", 3, 0);
  device().add_task("abcdefghijklmnop", 7, 0);
  RunResult r = probe("task 3 10 , task 3 11 , task 7 10 , task 7 11 , task 5 10 , task 5 0 , task 3 2 , task 128 0");
  std::vector<std::string> lines;
  std::istringstream in(r.out);
  for (std::string l; std::getline(in, l);) lines.push_back(l);
  ASSERT_EQ(lines.size(), 8u);
  EXPECT_EQ(lines[0], "task " + std::to_string(0x00706f746b736564LL));  // "desktop"
  EXPECT_EQ(lines[1], "task 0");
  EXPECT_EQ(lines[2], "task " + std::to_string(0x6867666564636261LL));  // "abcdefgh"
  EXPECT_EQ(lines[3], "task " + std::to_string(0x706f6e6d6c6b6a69LL));  // "ijklmnop"
  EXPECT_EQ(lines[4], "task 0");                                         // a free slot
  EXPECT_EQ(lines[5], "task 0");
  EXPECT_EQ(lines[6], "task -22");  // no such field
  EXPECT_EQ(lines[7], "task -22");  // no such slot
}

TEST_F(ProbeTest, TheHealthScanComparesEightBytesOnly) {
  device().add_task("desktop-x", 3, 0);
  device().add_task("longname1", 4, 0);
  RunResult r = probe("named desktop , named longname");
  EXPECT_EQ(r.out, "named 0\nnamed 1\n");
}

TEST_F(ProbeTest, TasksAppearAndEndOnTheVirtualClock) {
  device().add_task("desktop", 3, 20, 50);
  RunResult r = probe("named desktop , sleep 20000 , named desktop , sleep 30000 , named desktop , task 3 0");
  EXPECT_EQ(r.out, "named 0\nsleep 0\nnamed 1\nsleep 0\nnamed 0\ntask 5\n");
  auto tasks = events_of(r.events, "task");
  ASSERT_EQ(tasks.size(), 2u);
  EXPECT_EQ(tasks[0].ms, 20000);
  EXPECT_EQ(tasks[0].fields[0], "appear");
  EXPECT_EQ(tasks[1].ms, 50000);
  EXPECT_EQ(tasks[1].fields[0], "end");
}

TEST_F(ProbeTest, EndingTasksByNameCountsOnlyWholeNamesOfLiveTasks) {
  device().add_task("taskbar", 3, 0);
  device().add_task("taskbar", 50, 0);
  device().add_task("taskbarx", 4, 0);
  device().add_task("taskbar", 5, 0, 0);  // already ended: state 5
  RunResult r = probe("endname taskbar , endname taskbar , tasks128");
  // Slots 3 and 50 are gone, the ended task in slot 5 is not listed; the probe itself
  // holds slot 1.
  EXPECT_EQ(r.out, "ended 2\nended 0\nslot 1 state 1 pid " + std::to_string(r.pid) +
                       " name ota\nslot 4 state 1 pid 5000004 name taskbarx\n");
  auto ends = events_of(r.events, "end_task");
  ASSERT_EQ(ends.size(), 2u);
  EXPECT_EQ(ends[0].fields[0], "5000003");
  EXPECT_EQ(ends[0].fields[1], "taskbar");
  EXPECT_EQ(ends[0].fields[2], "137");
  EXPECT_EQ(ends[0].fields[3], "0");
}

TEST_F(ProbeTest, EndingAnUnknownPidFails) {
  RunResult r = probe("end 4999999 137");
  EXPECT_EQ(r.out, "end -3\n");  // ESRCH
  EXPECT_EQ(events_of(r.events, "end_task")[0].fields, (std::vector<std::string>{"4999999", "", "137", "-3"}));
}

TEST_F(ProbeTest, TheFirstOtaSlotIsConfigurable) {
  device().config().first_ota_slot = 20;
  RunResult r = probe("tasks128");
  EXPECT_EQ(r.out, "slot 20 state 1 pid " + std::to_string(r.pid) + " name ota\n");
}

// ---- time

TEST_F(ProbeTest, ASleepTakesVirtualTimeOnly) {
  int64_t before = device().virtual_ms();
  RunResult r = probe("info 16 , sleep 2500 , info 16 , sleep 3600000 , info 15");
  EXPECT_EQ(r.out, "info 5\nsleep 0\ninfo 5\nsleep 0\ninfo 10\n");
  EXPECT_EQ(device().virtual_ms() - before, 3602500);
  EXPECT_EQ(events_of(r.events, "exit")[0].ms, 3602500);
  // The clock keeps its time for the next command.
  RunResult next = probe("info 15 , info 16");
  EXPECT_EQ(next.out, "info 10\ninfo 5\n");
}

TEST_F(ProbeTest, TheDateComesFromTheConfiguredStart) {
  device().config().clock_start = "2026-12-31 23:59:00";
  RunResult r = probe("info 12 , info 13 , info 14 , info 15 , info 16 , sleep 120000 , info 12 , info 13 , info 14 , "
                      "info 15 , info 16 , info 7");
  EXPECT_EQ(r.out,
            "info 2026\ninfo 12\ninfo 31\ninfo 23\ninfo 59\nsleep 0\n"
            "info 2027\ninfo 1\ninfo 1\ninfo 0\ninfo 1\ninfo -22\n");
}

TEST_F(ProbeTest, BadSleepRequestsAreRefused) {
  RunResult r = probe("sleepraw 0 1000000000 , sleepraw -1 0 , sleepraw 0 0");
  EXPECT_EQ(r.out, "sleep -22\nsleep -22\nsleep 0\n");
}

TEST_F(ProbeTest, FreeSpaceIsFixedOrTheCapacityLeftByTheRoot) {
  device().config().free_blocks = 1234;
  device().config().block_size = 512;
  EXPECT_EQ(probe("info 5 , info 8").out, "info 1234\ninfo 512\n");
  device().config().capacity_bytes = 64 * 1024 * 1024;
  device().config().block_size = 4096;
  std::string first = probe("info 5").out;
  device().write_file("/system/big", std::string(4 * 1024 * 1024, 'x'));
  std::string second = probe("info 5").out;
  int64_t a = std::stoll(first.substr(5)), b = std::stoll(second.substr(5));
  EXPECT_LT(a, 64 * 1024 * 1024 / 4096);
  EXPECT_GE(a - b, 1024);  // the 4 MiB file took at least 1024 blocks
}

// ---- limits and endings

TEST_F(ProbeTest, ARestartEndsTheRun) {
  RunResult r = probe("reboot 5 , getpid , reboot , getpid");
  EXPECT_TRUE(r.rebooted);
  EXPECT_FALSE(r.exited);
  EXPECT_EQ(r.signal, 9);
  EXPECT_EQ(r.out, "reboot -22\npid " + std::to_string(r.pid) + "\n");  // nothing after the restart
  auto reboots = events_of(r.events, "reboot");
  ASSERT_EQ(reboots.size(), 2u);
  EXPECT_EQ(reboots[1].fields[0], "restart");
}

TEST_F(ProbeTest, TheVirtualLimitEndsAnEndlessSleeper) {
  RunOptions o;
  o.virtual_seconds = 50;
  RunResult r = probe("sleeploop", o);
  EXPECT_EQ(r.limit, Limit::virtual_time);
  EXPECT_FALSE(r.exited);
  EXPECT_EQ(device().virtual_ms(), 50000);
  EXPECT_EQ(events_of(r.events, "limit")[0].fields[0], "virtual");
}

TEST_F(ProbeTest, ServingUntilAConditionStopsAtItsVirtualBoundAndKeepsTheProcesses) {
  CommandId id = device().start({"sleeploop"});
  int64_t before = device().virtual_ms();
  EXPECT_FALSE(device().serve_until([] { return false; }, 20, 30));
  EXPECT_EQ(device().virtual_ms() - before, 30000);
  EXPECT_FALSE(device().finished(id));
  EXPECT_EQ(device().live_pids().size(), 1u);
  EXPECT_TRUE(device().serve_until([&] { return device().virtual_ms() - before >= 40000; }, 20));
  device().power_off();
  EXPECT_TRUE(device().finished(id));
}

TEST_F(ProbeTest, TheWallLimitEndsAProgramThatNeverCallsTheKernel) {
  RunOptions o;
  o.wall_seconds = 0.3;
  RunResult r = probe("spin", o);
  EXPECT_EQ(r.limit, Limit::wall);
  EXPECT_FALSE(r.exited);
  EXPECT_TRUE(device().live_pids().empty());
}

TEST_F(ProbeTest, ACrashIsReportedNotHungOn) {
  RunResult r = probe("crash");
  EXPECT_FALSE(r.exited);
  EXPECT_EQ(r.signal, 11);
  EXPECT_EQ(events_of(r.events, "exit")[0].value("signal"), "11");
}

// ---- files

TEST_F(ProbeTest, FilesAndDirectoriesMadeWithModeZeroStayUsable) {
  RunResult r = probe("create /tmp/f , mkdir /tmp/d , create /tmp/d/g");
  EXPECT_EQ(r.out, "create 3\nmkdir 0\ncreate 3\n");
  EXPECT_EQ(device().mode_of("/tmp/f"), 0644u);
  EXPECT_EQ(device().mode_of("/tmp/d"), 0755u);
  EXPECT_EQ(device().mode_of("/tmp/d/g"), 0644u);
}

TEST_F(ProbeTest, RenameNeverReplacesAnExistingTarget) {
  device().write_file("/tmp/a", "A");
  device().write_file("/tmp/b", "B");
  RunResult r = probe("rename /tmp/a /tmp/b , unlink /tmp/b , rename /tmp/a /tmp/b");
  EXPECT_EQ(r.out, "rename -17\nunlink 0\nrename 0\n");
  EXPECT_EQ(device().read_file("/tmp/b"), "A");
  EXPECT_FALSE(device().exists("/tmp/a"));
}

// ---- the ESP

TEST_F(ProbeTest, AMountFailsWithoutAnImageOrWithTheWrongOne) {
  device().write_file("/etc/marker", "x");
  std::filesystem::create_directories(device().dir() + "/disks");
  write_host(device().disk_image("hda1"), std::string(70000, '\x55'));
  device().make_esp("sda1", {{"limine.conf", "menu"}});
  RunResult r = probe("mount /dev/nvme01 , mount /dev/hda1 , mount /dev/sda1 /sysesp ext4 , mount /dev/sda1 /nowhere , "
                      "mount /dev/sda1 , mount /dev/sda1 , umount /sysesp , umount /sysesp");
  EXPECT_EQ(r.out, "mount -2\nmount -22\nmount -19\nmount -2\nmount 0\nmount -16\numount 0\numount -22\n");
  auto mounts = events_of(r.events, "mount");
  ASSERT_EQ(mounts.size(), 6u);
  EXPECT_EQ(mounts[0].fields, (std::vector<std::string>{"/dev/nvme01", "/sysesp", "vfat", "-2"}));
  EXPECT_EQ(mounts[4].fields[3], "0");
}

TEST_F(ProbeTest, TheEspIsVisibleOnlyWhileMountedAndChangesReachTheImage) {
  device().make_esp("sda1", {{"limine.conf", "menu"}, {"tavi.mb", "A"}});
  RunResult r = probe("mount /dev/sda1 , write /sysesp/tavi-b.mb BBBB , sync");
  EXPECT_EQ(r.out, "mount 0\nwrite 0\nsync 0\n");
  // Still mounted after the command: visible in the root, and synced into the image.
  EXPECT_TRUE(device().mounted("/sysesp"));
  EXPECT_EQ(device().read_file("/sysesp/limine.conf"), "menu");
  EXPECT_EQ(device().esp_read("sda1", "tavi-b.mb"), "BBBB");
  r = probe("write /sysesp/limine.conf new-menu , unlink /sysesp/tavi.mb , umount /sysesp");
  EXPECT_EQ(r.out, "write 0\nunlink 0\numount 0\n");
  EXPECT_FALSE(device().mounted("/sysesp"));
  EXPECT_FALSE(device().exists("/sysesp/limine.conf"));
  EXPECT_TRUE(device().exists("/sysesp"));
  EXPECT_EQ(device().esp_read("sda1", "limine.conf"), "new-menu");
  EXPECT_EQ(device().esp_read("sda1", "tavi.mb"), std::nullopt);
  std::string report;
  EXPECT_EQ(device().esp_check("sda1", &report), 0) << report;
}

TEST_F(ProbeTest, WhatAMountPointHeldComesBackAfterTheUnmount) {
  device().make_esp("sda1", {{"limine.conf", "menu"}});
  device().write_file("/sysesp/stray", "under the mount");
  RunResult r = probe("mount /dev/sda1 , umount /sysesp");
  EXPECT_EQ(r.out, "mount 0\numount 0\n");
  EXPECT_EQ(device().read_file("/sysesp/stray"), "under the mount");
  auto names = device().esp_list("sda1");
  EXPECT_EQ(std::find(names.begin(), names.end(), "stray"), names.end());
}

TEST_F(ProbeTest, AMountOutlivesTheSimulatorSession) {
  device().make_esp("sda1", {{"limine.conf", "menu"}});
  EXPECT_EQ(probe("mount /dev/sda1 , write /sysesp/x X").out, "mount 0\nwrite 0\n");
  std::string dir = device().dir();
  device_.reset();  // the session ends; the kernel keeps its mount in kernel.state
  EXPECT_EQ(fat_read(dir + "/disks/sda1.img", "x"), "X");
  device_.emplace(Device::open(dir));
  EXPECT_TRUE(device().mounted("/sysesp"));
  EXPECT_EQ(probe("write /sysesp/y Y , umount /sysesp").out, "write 0\numount 0\n");
  EXPECT_EQ(device().esp_read("sda1", "y"), "Y");
  EXPECT_FALSE(device().exists("/sysesp/x"));
}

TEST_F(ProbeTest, ARestartUnmountsTheEspKeepingWhatWasWritten) {
  device().make_esp("sda1", {{"limine.conf", "menu"}});
  RunResult r = probe("mount /dev/sda1 , write /sysesp/tavi-b.mb B , reboot");
  EXPECT_TRUE(r.rebooted);
  EXPECT_FALSE(device().mounted("/sysesp"));
  EXPECT_FALSE(device().exists("/sysesp/limine.conf"));
  EXPECT_EQ(device().esp_read("sda1", "tavi-b.mb"), "B");
  EXPECT_EQ(device().esp_check("sda1"), 0);
}

// ---- growth and notices

TEST_F(ProbeTest, GrowStepsThroughTheConfiguredProgress) {
  device().config().grow.steps = {0, 50, 120, 990};
  RunResult r = probe("grow 15 0 , grow 15 1 , grow 16 256 , grow 15 1 , grow 16 256 , grow 16 256 , grow 15 1 , "
                      "grow 16 256 , grow 15 1 , grow 16 256 , grow 15 0 , grow 15 1 , grow 16 256 , grow 16 1 , grow 17 0");
  EXPECT_EQ(r.out,
            "grow 1\ngrow 0\ngrow 0\ngrow 0\ngrow 0\ngrow 0\ngrow 120\ngrow 0\ngrow 990\ngrow 1\ngrow 3\ngrow 1000\n"
            "grow 1\ngrow -22\ngrow -22\n");
  EXPECT_EQ(events_of(r.events, "grow").size(), 15u);
}

TEST_F(ProbeTest, AnInterruptedGrowthGoesOnFromTheKernelState) {
  device().config().grow.steps = {100, 200, 300};
  EXPECT_EQ(probe("grow 16 256 , grow 16 256 , grow 15 1").out, "grow 0\ngrow 0\ngrow 200\n");
  EXPECT_EQ(probe("grow 15 1 , grow 16 256 , grow 16 256").out, "grow 200\ngrow 0\ngrow 1\n");
}

TEST_F(ProbeTest, AGrowStepFailsWithTheConfiguredCode) {
  device().config().grow.steps = {100, 200};
  device().config().grow.fail_step = 2;
  device().config().grow.fail_code = 7;
  EXPECT_EQ(probe("grow 16 256 , grow 16 256 , grow 15 1 , grow 16 256").out, "grow 0\ngrow 7\ngrow 100\ngrow 7\n");
  device().config().grow.state = 0;
  device().config().grow.fail_step = 0;
  EXPECT_EQ(probe("grow 15 0").out, "grow 0\n");
}

TEST_F(ProbeTest, NotificationsAreLogged) {
  RunResult r = probe(std::vector<std::string>{"notify", "System update available: build 42"});
  EXPECT_EQ(r.out, "notify 0\n");
  auto n = events_of(r.events, "notify");
  ASSERT_EQ(n.size(), 1u);
  EXPECT_EQ(n[0].fields[0], "System update available: build 42");
}

// ---- forked children

TEST_F(ProbeTest, AForkedChildIsTracedListedAndServedAfterItsParentEnds) {
  RunResult r = probe("fork 3000 /tmp/child-done yes , tasks128");
  EXPECT_EQ(r.status, 0);
  std::string child = r.out.substr(5, r.out.find('\n') - 5);
  EXPECT_TRUE(has_line(r.out, "slot 2 state 1 pid " + child + " name ota")) << r.out;
  auto forks = events_of(r.events, "fork");
  ASSERT_EQ(forks.size(), 1u);
  EXPECT_EQ(forks[0].value("child"), child);
  // The parent's command is over; the child still sleeps.
  EXPECT_EQ(device().live_pids().size(), 1u);
  EXPECT_FALSE(device().exists("/tmp/child-done"));
  int64_t before = device().virtual_ms();
  EXPECT_TRUE(device().wait_background(20));
  EXPECT_EQ(device().read_file("/tmp/child-done"), "yes");
  EXPECT_EQ(device().virtual_ms() - before, 3000);
  EXPECT_EQ(device().mode_of("/tmp/child-done"), 0644u);
}

TEST_F(ProbeTest, AnotherCommandCanEndABackgroundChild) {
  RunResult r = probe("fork 60000");
  std::string child = r.out.substr(5, r.out.find('\n') - 5);
  ASSERT_EQ(device().live_pids().size(), 1u);
  RunResult e = probe("end " + child + " 137 , end " + child + " 137");
  EXPECT_EQ(e.out, "end 0\nend -3\n");
  EXPECT_TRUE(device().live_pids().empty());
  auto ends = events_of(e.events, "end_task");
  ASSERT_EQ(ends.size(), 2u);
  EXPECT_EQ(ends[0].fields[0], child);
  EXPECT_EQ(ends[0].fields[1], "ota");
  bool child_exit = false;
  for (auto& x : events_of(device().events(), "exit"))
    child_exit = child_exit || (std::to_string(x.pid) == child && x.value("signal") == "9");
  EXPECT_TRUE(child_exit);
}

TEST_F(ProbeTest, EndingTasksByNameEndsTheCallerToWhenItIsNamedSo) {
  // The caller holds slot 1, before its background child in slot 2: the walk ends the
  // caller first, and the kernel does so at once.
  probe("fork 60000");
  RunResult e = probe("endname ota , getpid");
  EXPECT_FALSE(e.exited);
  EXPECT_EQ(e.signal, 9);
  EXPECT_EQ(e.out, "");
  ASSERT_EQ(events_of(e.events, "end_task").size(), 1u);
  EXPECT_EQ(events_of(e.events, "end_task")[0].fields[0], std::to_string(e.pid));
  EXPECT_EQ(device().live_pids().size(), 1u);
}

TEST_F(ProbeTest, SleepersShareOneClock) {
  // Parent and child sleep at the same time: the clock moves by the longer sleep, not by
  // the sum.
  CommandId id = device().start(words_of("fork 5000 /tmp/c done , sleep 3000"));
  RunResult r = device().wait(id);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(device().virtual_ms(), 3000);
  ASSERT_TRUE(device().wait_background(20));
  EXPECT_EQ(device().virtual_ms(), 5000);
}

// ---- cuts in any process, synced durability

TEST_F(ProbeTest, ACutKeepsOnlyWhatWasSynced) {
  RunOptions o;
  // execve is not counted. The probe's calls: open a (1), write (2), close (3), its line
  // (4), sync (5), its line (6), open b (7), write (8), close (9), its line (10).
  o.cut = Cut{9, Durability::synced, false};
  RunResult r = probe("write /system/a 1 , sync , write /system/b 2", o);
  EXPECT_TRUE(r.cut);
  EXPECT_EQ(events_of(r.events, "cut")[0].value("nr"), "3");
  EXPECT_EQ(device().read_file("/system/a"), "1");
  EXPECT_FALSE(device().exists("/system/b"));
  o.cut = Cut{9, Durability::all, false};
  device().remove("/system/a");
  r = probe("write /system/a 1 , sync , write /system/b 2", o);
  EXPECT_TRUE(r.cut);
  EXPECT_EQ(device().read_file("/system/b"), "2");
  o.cut = Cut{8, Durability::all, false};
  device().remove("/system/b");
  r = probe("write /system/a 1 , sync , write /system/b 2", o);
  EXPECT_EQ(device().read_file("/system/b"), "");
}

TEST_F(ProbeTest, ACutCanStrikeAForkedChild) {
  RunOptions o;
  o.cut = Cut{4, Durability::all, true};
  // The parent's calls: fork (1), its line (2), nanosleep (3) for five seconds; the
  // child's: nanosleep (1) for one second, open (2), write (3), close (4).
  RunResult r = probe("fork 1000 /tmp/c child , sleep 5000", o);
  EXPECT_TRUE(r.cut);
  auto cuts = events_of(r.events, "cut");
  ASSERT_EQ(cuts.size(), 1u);
  EXPECT_EQ(cuts[0].value("nr"), "3");  // close
  EXPECT_NE(std::to_string(cuts[0].pid), std::to_string(r.pid));
  EXPECT_EQ(device().read_file("/tmp/c"), "child");
  EXPECT_TRUE(device().live_pids().empty());
}

}  // namespace
}  // namespace tavisim
