#pragma once
// tavi-sim fleet: a release rehearsed on many simulated devices. Each device starts in a
// state drawn from a mix (versions, key generation, system build, spare key, free space,
// an open or staged trial), fetches from the release's sources served by nginx on
// 127.0.0.1, and lives through rounds of its service loop, its owner's restarts and
// power cuts. docs/fleet.md describes the command, its files and its outcomes.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tavisim::fleet {

// ---------------------------------------------------------------------------------------
// Random draws. Every draw of a device comes from generators seeded (mix64) with the run's
// seed and the device's index, so a device lives the same life whatever else runs beside it.

class Draws {
 public:
  Draws(uint64_t seed, uint64_t index, uint64_t stream);
  uint64_t next();
  // True with the chance ppm parts per million.
  bool chance(uint32_t ppm);
  // 1 to n, evenly.
  uint64_t between_one_and(uint64_t n);

 private:
  uint64_t state_;
};

// ---------------------------------------------------------------------------------------
// The release: what the sources offer, read from their signed catalogs.

struct Release {
  std::string package_dir;
  uint64_t version = 0;        // the catalog's fassung
  std::string catalog_sha256;  // identifies the catalog among shards
  // Package name -> the version word the installer's INDEX gives it.
  std::map<std::string, std::string> packages;
  uint64_t newest_generation = 0;  // the highest key generation of any "kette" line

  bool has_system = false;
  std::string system_dir;
  uint64_t build = 0;
  std::string commit;
  uint64_t min_from = 0;
  std::string kernel_file;  // the kernel image's name in the system source
  uint64_t kernel_bytes = 0;
  // The overlay files the build brings: where they go on the device, their SHA-256, and
  // their name in the system source.
  struct OverlayFile {
    std::string path;
    std::string sha256;
    std::string name;
  };
  std::vector<OverlayFile> overlay;
  std::string system_catalog_sha256;
};

// Reads the sources; throws SimError naming what is missing or unreadable.
Release read_release(const std::string& package_dir, const std::string& system_dir);

// ---------------------------------------------------------------------------------------
// The mix: how devices start and how their owners act.

// A value of a mix line as written: a number, or one relative to the release ("new-2",
// "min+1").
struct MixValue {
  std::string text;
  uint64_t value = 0;   // resolved against the release
  uint64_t weight = 0;  // in thousandths, as written (a trailing % is allowed)
  std::string weight_text;
  std::string key_file;  // keygen lines: the trusted key of that generation
};

struct Mix {
  std::vector<MixValue> version, keygen, build, spare, free_blocks, trial, automatic;
  uint64_t abstand = 3600;
  uint64_t sysabstand = 21600;
  uint32_t restart_ppm = 500000;       // an owner restarts a device that waits for it
  uint32_t system_apply_ppm = 500000;  // an owner applies an announced system update
};

// The mix used when none is given, for this release.
Mix default_mix(const Release& r, bool spare_given);
// Parses a mix file over the default: a key given in the file replaces the default's
// lines of that key. Throws SimError naming the line at fault.
Mix parse_mix(const std::string& text, const std::string& origin, const Release& r, bool spare_given);
// The mix as lines of a mix file, with the values resolved.
std::vector<std::string> format_mix(const Mix& m);

// The state a device starts in.
struct StartState {
  uint64_t version = 0;
  uint64_t keygen = 0;
  std::string key_file;  // empty: the fleet's trusted key
  uint64_t build = 0;
  bool spare = false;
  uint64_t free_blocks = 0;
  std::string trial = "none";  // none, open, system
  std::string automatic = "ja";
};

StartState draw_start(const Mix& m, uint64_t seed, uint64_t index);

// ---------------------------------------------------------------------------------------
// One device's life.

struct FleetParams {
  uint64_t devices = 0;
  uint64_t rounds = 0;
  uint64_t seed = 1;
  uint32_t power_cut_ppm = 0;
  uint32_t fetch_fail_ppm = 0;
  std::string ota_binary;
  std::string trusted_key_file;
  std::string spare_key_file;  // empty: none
  std::string out;
};

// How many system calls each kind of command made in a calibration run; a power cut
// falls on a call drawn from these until the device has run that kind of command itself.
struct CallCounts {
  uint64_t service = 64;
  uint64_t boot = 64;
  uint64_t system_apply = 64;
};

// The state a device is in at a moment, for the rollout picture.
struct Sample {
  bool down = false;
  uint64_t version = 0;
  uint64_t build = 0;
};

struct DeviceReport {
  uint64_t index = 0;
  StartState start;
  uint64_t end_version = 0;
  uint64_t end_keygen = 0;
  uint64_t end_build = 0;
  std::string end_trial = "none";
  std::string outcome;
  std::string reason;  // empty when the device ended on the release
  std::string said;    // the device's own line behind the reason
  std::string updated_at = "-";  // virtual hours until it ran the release
  uint64_t boots = 0;
  uint64_t cuts = 0;
  uint64_t drops = 0;
  uint64_t rollbacks = 0;  // system trials the device rolled back
  std::string kept = "-";  // the device directory, relative to OUT, when kept
  std::vector<Sample> timeline;  // at the start and after each round
};

struct LifeContext {
  const FleetParams* params = nullptr;
  const Release* release = nullptr;
  const Mix* mix = nullptr;
  CallCounts calls;
  int port = 0;
  // Where device directories live while their device runs; kept ones are copied to
  // OUT/devices/ at their end.
  std::string scratch;
};

DeviceReport live_device(const LifeContext& c, uint64_t index);

// What a device said that explains why it is not on the release: the last refusal (the
// device saying no to the release), the last thing left to a person (a system trial rolled
// back) and the last trouble of the link, each with the reason's name and the device's own
// words.
struct Heard {
  struct Saying {
    std::string reason;
    std::string words;
  };
  Saying refusal, person, trouble;
  uint64_t rollbacks = 0;  // system trials the device rolled back

  void listen(const std::string& output);
};
CallCounts calibrate(const FleetParams& p, const Release& r, const Mix& m, const std::string& work_dir);

// ---------------------------------------------------------------------------------------
// The files of a run.

// A device's index as its name and directory show it: six digits.
std::string six_digits(uint64_t v);

constexpr const char* kOutcomes[] = {"updated", "current", "refused", "in-trial", "needs-person",
                                     "behind",  "outside", "cannot-boot", "error"};

std::string device_header();
std::string format_device_line(const DeviceReport& d);
// nullopt: not a device line.
std::optional<DeviceReport> parse_device_line(const std::string& line);

struct Traffic {
  uint64_t requests = 0;
  uint64_t range_requests = 0;
  uint64_t failed = 0;
  uint64_t bytes = 0;
};
using TrafficByPath = std::map<std::string, Traffic>;

// Devices per (sample, kind, value): kind "version" or "build", value a number or "down".
struct RolloutKey {
  uint64_t sample = 0;
  std::string kind;
  std::string value;
  bool operator<(const RolloutKey& o) const;
};
using Rollout = std::map<RolloutKey, uint64_t>;
void add_to_rollout(Rollout& r, const DeviceReport& d, bool has_system);

// The run's parameters and the release, as "key TAB value" lines; the same for every
// shard of one rehearsal.
std::vector<std::pair<std::string, std::string>> run_lines(const FleetParams& p, const Release& r, const Mix& m);

struct Results {
  std::vector<std::pair<std::string, std::string>> run;
  std::vector<DeviceReport> devices;  // by index
  TrafficByPath traffic;
  Rollout rollout;
};

// Writes devices.tsv, summary.md, requests.tsv, rollout.tsv, run.tsv and rollout.png.
void write_results(const std::string& out, const Results& r);
Results read_results(const std::string& out);

// ---------------------------------------------------------------------------------------
// The update source as a web server.

struct Server {
  int pid = -1;
  int port = 0;
  std::string dir;  // its configuration and logs
};
Server start_server(const Release& r, const std::string& scratch);
// Stops nginx and reads its access log.
TrafficByPath stop_server(Server& s);

// ---------------------------------------------------------------------------------------

int fleet_main(int argc, char** argv);  // tavi-sim fleet ...

}  // namespace tavisim::fleet
