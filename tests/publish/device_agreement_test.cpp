// The publisher says what a device would do; these tests hold its verdicts against the
// device's own functions (the device sources built for the host, linked in) over
// thousands of generated cases each, from fixed seeds so that a failure comes back the
// same way. Where the publisher already asks the device's function, the test still
// compares it with a reference written here from the rules, so that a wrong wrapper or a
// wrong rule shows.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <stdlib.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "packages/fetch.h"
#include "publish/catalog_text.h"
#include "publish/gzip.h"
#include "publish/key_chain.h"
#include "publish/limits.h"
#include "publish/rules.h"
#include "runtime/syscall.h"
#include "runtime/text.h"
#include "signing.h"
#include "system/overlay.h"
#include "trust/catalog_text.h"
#include "trust/ed25519.h"
#include "trust/keys.h"

namespace {

using Rng = std::mt19937_64;

std::string pick(Rng& rng, const std::vector<std::string>& choices) {
  return choices[std::uniform_int_distribution<std::size_t>(0, choices.size() - 1)(rng)];
}
std::size_t below(Rng& rng, std::size_t n) { return std::uniform_int_distribution<std::size_t>(0, n - 1)(rng); }
bool chance(Rng& rng, double p) { return std::uniform_real_distribution<double>(0, 1)(rng) < p; }

// ---------------------------------------------------------------------------------------
// Overlay targets and links

// A target built from the pieces the rules look at: the overlay areas, "/bin/", "..",
// "//", "/start", the allowed characters and a few that are not, often near the length
// limits.
std::string generated_target(Rng& rng) {
  std::string t = pick(rng, {"", "", "/", "/apps/", "/etc/", "/usr/share/", "/lib/", "/bin/", ".", "/apps", "/usr/",
                             "/etc", "/lib/x/", "/apps/clock/"});
  std::size_t pieces = below(rng, 9);
  for (std::size_t i = 0; i < pieces; i++) {
    t += pick(rng, {"a", "Z", "9", "x.y", "-", "_", ".", "..", "/", "//", "start", "/start", "conf", " ", "@", "\t",
                    "\xc3\xa9", "~", "+", ":"});
  }
  if (chance(rng, 0.3)) t += std::string(below(rng, 64), pick(rng, {"a", "b", "/"})[0]);
  if (chance(rng, 0.1)) t = t.substr(0, below(rng, t.size() + 1));
  return t;
}

// Mostly what the rules allow, near their edges, now and then spoiled by one piece.
std::string mostly_valid_target(Rng& rng, bool absolute) {
  std::string t = absolute ? pick(rng, {"/apps/", "/etc/", "/usr/share/", "/lib/"}) : "";
  std::size_t length = below(rng, 62);
  for (std::size_t k = 0; k < length; k++) {
    t.push_back("abcXYZ019._-/"[t.empty() || t.back() == '/' ? below(rng, 9) : below(rng, absolute ? 13 : 12)]);
  }
  if (chance(rng, 0.2)) t.insert(below(rng, t.size() + 1), pick(rng, {"..", "//", "/", ".", " ", "\t", "@"}));
  return t;
}

TEST(DeviceAgreement, OverlayTargetRulesGiveTheDevicesVerdict) {
  Rng rng(18001);
  std::size_t accepted = 0;
  std::size_t refused = 0;
  for (int i = 0; i < 30000; i++) {
    std::string t = chance(rng, 0.5) ? generated_target(rng) : mostly_valid_target(rng, chance(rng, 0.5));
    bool device = ota::valid_target(t.c_str()) == 1;
    ASSERT_EQ(publish::target_rule_problem(t).empty(), device) << "target \"" << t << "\"";
    ASSERT_EQ(publish::target_problem(t).empty(), device) << "target \"" << t << "\"";
    (device ? accepted : refused)++;
  }
  // Both verdicts were met often, not only one.
  EXPECT_GT(accepted, 3000u);
  EXPECT_GT(refused, 3000u);
}

TEST(DeviceAgreement, ATargetHoldingAZeroByteIsRefusedThoughTheDeviceSeesOnlyItsStart) {
  // The device would end the field at the zero byte and install at a different path.
  std::string t("/etc/a\0b", 8);
  EXPECT_EQ(ota::valid_target(t.c_str()), 1);
  EXPECT_FALSE(publish::target_problem(t).empty());
  EXPECT_FALSE(publish::link_problem(t, "/bin/x").empty());
  EXPECT_FALSE(publish::link_problem("/etc/a", std::string("/bin/x\0y", 8)).empty());
}

TEST(DeviceAgreement, LinkRulesGiveTheDevicesVerdict) {
  Rng rng(18002);
  std::size_t accepted = 0;
  std::size_t refused = 0;
  for (int i = 0; i < 30000; i++) {
    std::string path = chance(rng, 0.5) ? generated_target(rng) : mostly_valid_target(rng, true);
    std::string target = pick(rng, {"/bin/", "/bin/", "/bin/", "/bin//", "/sbin/", "", "/bin/.", "/bin/../"}) +
                         (chance(rng, 0.5) ? generated_target(rng) : mostly_valid_target(rng, false));
    bool device = ota::valid_link(path.c_str(), target.c_str()) == 1;
    ASSERT_EQ(publish::link_rule_problem(path, target).empty(), device) << "link " << path << " -> " << target;
    ASSERT_EQ(publish::link_problem(path, target).empty(), device) << "link " << path << " -> " << target;
    (device ? accepted : refused)++;
  }
  EXPECT_GT(accepted, 1000u);
  EXPECT_GT(refused, 3000u);
}

// ---------------------------------------------------------------------------------------
// Download names. A device does not judge a file name from a signed catalog: it puts it
// into a URL and a path under /tmp/ota as it stands, and only `ota fetch` refuses a name
// (fetchable_name). So the publisher's rule must accept only names the device would take
// whole and that `ota fetch` takes too, and for names of the publisher's own characters
// the two must agree exactly.
bool publisher_accepts_name(const std::string& name) {
  try {
    publish::check_download_name(name, publish::limits::kPackageFile, "file name");
    return true;
  } catch (const publish::Error&) {
    return false;
  }
}

TEST(DeviceAgreement, DownloadNamesThePublisherAcceptsTheDeviceTakesWhole) {
  Rng rng(18003);
  const std::string allowed = "abcXYZ019._+~-";
  std::size_t accepted = 0;
  std::size_t same_characters = 0;
  for (int i = 0; i < 20000; i++) {
    bool only_allowed = chance(rng, 0.7);
    std::string name;
    std::size_t length = chance(rng, 0.1) ? 120 + below(rng, 12) : below(rng, 40);
    for (std::size_t k = 0; k < length; k++) {
      name.push_back(only_allowed ? allowed[below(rng, allowed.size())] : "ab./ :\t%.."[below(rng, 11)]);
    }
    if (chance(rng, 0.05)) name = pick(rng, {"INDEX", "INDEX.sig", "VERZEICHNIS", "VERZEICHNIS.sig", "..", "a..b"});
    bool publisher = publisher_accepts_name(name);
    bool device = ota::fetchable_name(name.c_str()) == 1;
    if (publisher) {
      accepted++;
      ASSERT_TRUE(device) << name;
      // Read back by the device's field reader with its capacity, the name is whole.
      std::string line = "n\tw\th\t1\t" + name + "\ttavi-any\n";
      std::vector<char> out(ota::kPackageFieldBytes);
      ota::catalog_field(line.data(), line.data() + line.size(), 4, out.data(), out.size());
      ASSERT_EQ(std::string(out.data()), name);
    }
    bool own_characters = !name.empty() && name.size() <= publish::limits::kPackageFile && name[0] != '.' &&
                          name.find_first_not_of(allowed) == std::string::npos && name != "INDEX" &&
                          name != "INDEX.sig" && name != "VERZEICHNIS" && name != "VERZEICHNIS.sig";
    if (own_characters) {
      same_characters++;
      ASSERT_EQ(publisher, device) << name;
    }
  }
  EXPECT_GT(accepted, 5000u);
  EXPECT_GT(same_characters, 5000u);
}

// ---------------------------------------------------------------------------------------
// Catalog field reading and numbers

// Field n of the line at `start`, from the rules: skip n fields, each ending at a TAB (a LF
// or the end first: missing); copy up to a TAB, a LF or the end.
std::string reference_field(const std::string& text, std::size_t start, std::size_t n, bool* missing) {
  std::size_t p = start;
  *missing = false;
  for (std::size_t k = 0; k < n; k++) {
    while (p < text.size() && text[p] != '\t' && text[p] != '\n') p++;
    if (p >= text.size() || text[p] == '\n') {
      *missing = true;
      return "";
    }
    p++;
  }
  std::size_t end = p;
  while (end < text.size() && text[end] != '\t' && text[end] != '\n') end++;
  return text.substr(p, end - p);
}

TEST(DeviceAgreement, CatalogFieldsAreReadAsTheDeviceReadsThem) {
  Rng rng(18004);
  const std::string alphabet = "ab1\t\t\n\r x";
  for (int i = 0; i < 30000; i++) {
    std::string text;
    std::size_t length = below(rng, 200);
    for (std::size_t k = 0; k < length; k++) text.push_back(chance(rng, 0.02) ? '\0' : alphabet[below(rng, alphabet.size())]);
    std::size_t start = below(rng, text.size() + 1);
    std::size_t n = below(rng, 7);
    std::size_t kept = below(rng, 40);

    publish::Field f = publish::line_field(text, start, n, kept);
    std::vector<char> out(kept + 1, 0x5a);
    int device = ota::catalog_field(text.data() + start, text.data() + text.size(), n, out.data(), out.size());
    bool missing;
    std::string whole = reference_field(text, start, n, &missing);
    std::string context = "text \"" + text + "\" start " + std::to_string(start) + " field " + std::to_string(n);
    ASSERT_EQ(f.present, device == 1) << context;
    // A field counts when the reader copied at least one byte of it.
    ASSERT_EQ(f.present, !whole.empty() && kept > 0) << context;
    ASSERT_EQ(f.whole, whole) << context;
    ASSERT_EQ(f.cut, whole.size() > kept) << context;
    ASSERT_EQ(f.value, whole.substr(0, kept)) << context;
    ASSERT_EQ(std::string(out.data(), f.value.size()), f.value) << context;
    ASSERT_EQ(out[f.value.size()], 0) << context;
  }
}

TEST(DeviceAgreement, NumbersAreReadAsTheDeviceReadsThem) {
  Rng rng(18005);
  for (int i = 0; i < 30000; i++) {
    std::string text;
    std::size_t length = below(rng, 30);
    for (std::size_t k = 0; k < length; k++) text.push_back("0123456789999 a-+\0"[below(rng, 18)]);
    std::uint64_t reference = 0;
    for (char c : text) {
      if (c < '0' || c > '9') break;
      if (reference < 1000000000000000000ull) reference = reference * 10 + static_cast<std::uint64_t>(c - '0');
    }
    ASSERT_EQ(publish::device_decimal(text), reference) << text;
    ASSERT_EQ(publish::device_decimal(text), ota::parse_decimal(text.c_str())) << text;
  }
}

TEST(DeviceAgreement, LinesAreFoundAsTheDeviceFindsThem) {
  Rng rng(18006);
  const std::vector<std::string> tags = {"kette\t", "paket\t", "gesperrt\t", "sysfile\t", "sysfile\tfile\t",
                                         "sysgz\t", "syslink\t", "system\t", "fassung\t"};
  for (int i = 0; i < 3000; i++) {
    std::string text;
    std::size_t lines = below(rng, 12);
    for (std::size_t k = 0; k < lines; k++) {
      text += chance(rng, 0.7) ? pick(rng, tags) : pick(rng, {"", "x", "\t", "kette", " paket\t", "sysfile\tfil"});
      text += pick(rng, {"", "1", "a\tb", "kette\t", "file\tx"});
      if (chance(rng, 0.9)) text += chance(rng, 0.1) ? "\r\n" : "\n";
    }
    std::copy(text.begin(), text.end(), ota::catalog.text);
    ota::hold_catalog_text(text.size());
    for (int q = 0; q < 8; q++) {
      std::string tag = pick(rng, tags);
      std::size_t index = below(rng, 4);
      std::optional<std::size_t> publisher = publish::find_line(text, tag, index);
      const char* device = ota::find_catalog_line(tag.c_str(), tag.size(), index);
      ASSERT_EQ(publisher.has_value(), device != nullptr) << text << " tag " << tag << " index " << index;
      if (device) {
        ASSERT_EQ(*publisher, static_cast<std::size_t>(device - ota::catalog.text));
      }
    }
  }
  ota::hold_catalog_text(0);
}

// ---------------------------------------------------------------------------------------
// The key-chain walk

using Key = std::array<std::uint8_t, 32>;

bool openssl_verifies(const Key& key, const std::string& message, const std::string& sig) {
  return ::openssl_verifies(std::string(reinterpret_cast<const char*>(key.data()), key.size()), message, sig);
}

std::string bytes_of(const Key& k) { return std::string(reinterpret_cast<const char*>(k.data()), 32); }

// Exactly 2n hex digits of either case, else nothing.
std::optional<std::string> unhex(const std::string& text, std::size_t n) {
  if (text.size() != 2 * n) return std::nullopt;
  std::string out;
  for (std::size_t i = 0; i < n; i++) {
    int v = 0;
    for (int h = 0; h < 2; h++) {
      char c = text[2 * i + static_cast<std::size_t>(h)];
      int d = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
      if (d < 0) return std::nullopt;
      v = v * 16 + d;
    }
    out.push_back(static_cast<char>(v));
  }
  return out;
}

struct Outcome {
  Key key{};
  std::uint64_t generation = 0;
  bool broken = false;
};

// The walk written again from the rules, with OpenSSL as the verifier.
Outcome reference_walk(const std::string& text, const Key& trusted, const std::optional<Key>& spare,
                       std::uint64_t generation) {
  Outcome o{trusted, generation, false};
  for (std::size_t index = 0;;) {
    // The index-th line beginning with "kette\t" at a line start.
    std::size_t seen = 0;
    std::optional<std::size_t> at;
    for (std::size_t p = 0; p < text.size(); p++) {
      if (p != 0 && text[p - 1] != '\n') continue;
      if (text.compare(p, 6, "kette\t") != 0) continue;
      if (seen++ == index) {
        at = p + 6;
        break;
      }
    }
    if (!at) return o;
    bool missing;
    std::string gen = reference_field(text, *at, 0, &missing).substr(0, 23);
    std::uint64_t number = 0;
    for (char c : gen) {
      if (c < '0' || c > '9') break;
      if (number < 1000000000000000000ull) number = number * 10 + static_cast<std::uint64_t>(c - '0');
    }
    if (gen.empty() || number != o.generation + 1) {
      index++;
      continue;
    }
    std::string key_text = reference_field(text, *at, 1, &missing).substr(0, 79);
    std::string sig_text = reference_field(text, *at, 2, &missing).substr(0, 139);
    auto key = unhex(key_text, 32);
    auto sig = unhex(sig_text, 64);
    if (!key || !sig) {
      o.broken = true;
      return o;
    }
    std::string message = "tavi-schluessel\t" + std::to_string(o.generation + 1) + "\t" + key_text;
    bool ok = openssl_verifies(o.key, message, *sig) || (spare && openssl_verifies(*spare, message, *sig));
    if (!ok) {
      o.broken = true;
      return o;
    }
    std::copy(key->begin(), key->end(), o.key.begin());
    o.generation++;
    index = 0;
  }
}

Outcome device_walk(const std::string& text, const Key& trusted, const std::optional<Key>& spare,
                    std::uint64_t generation) {
  std::copy(text.begin(), text.end(), ota::catalog.text);
  ota::hold_catalog_text(text.size());
  std::copy(trusted.begin(), trusted.end(), ota::trust.trusted_key);
  ota::trust.spare_present = spare.has_value();
  if (spare) std::copy(spare->begin(), spare->end(), ota::trust.spare_key);
  ota::trust.stored_generation = generation;
  ota::trust.current_generation = generation;
  ota::follow_key_chain();
  Outcome o;
  std::copy(std::begin(ota::trust.trusted_key), std::end(ota::trust.trusted_key), o.key.begin());
  o.generation = ota::trust.current_generation;
  o.broken = ota::trust.chain_broken;
  return o;
}

TEST(DeviceAgreement, TheKeyChangeWalkEndsWhereTheDevicesWalkEnds) {
  Rng rng(18007);
  std::vector<TestKey> keys;
  for (std::uint8_t fill = 0x40; fill < 0x48; fill++) keys.push_back(TestKey::from_seed(fill));
  const TestKey& spare_key = keys[7];
  std::size_t moved = 0;
  std::size_t broken = 0;
  std::size_t stayed = 0;
  for (int i = 0; i < 3000; i++) {
    std::uint64_t start = below(rng, 3);
    std::optional<Key> spare;
    if (chance(rng, 0.5)) spare = spare_key.pub;
    std::vector<std::string> lines;
    std::size_t count = below(rng, 7);
    for (std::size_t k = 0; k < count; k++) {
      std::uint64_t g = start + 1 + below(rng, 4);
      if (chance(rng, 0.1)) g = below(rng, 3);
      std::string gen_text = std::to_string(g);
      if (chance(rng, 0.05)) gen_text = "0" + gen_text;
      if (chance(rng, 0.05)) gen_text += "x";
      if (chance(rng, 0.03)) gen_text = "";
      const TestKey& next = keys[g % 7];
      std::string key_text = to_hex(bytes_of(next.pub), chance(rng, 0.1));
      if (chance(rng, 0.05)) key_text = key_text.substr(0, 63);
      if (chance(rng, 0.05)) key_text += "0";
      const TestKey* signer = g >= 1 ? &keys[(g - 1) % 7] : &keys[0];
      if (chance(rng, 0.15)) signer = &spare_key;
      if (chance(rng, 0.1)) signer = &keys[below(rng, 7)];
      std::string signed_gen = chance(rng, 0.05) ? std::to_string(g + 1) : std::to_string(g);
      std::string sig_text = to_hex(signer->sign("tavi-schluessel\t" + signed_gen + "\t" + key_text), chance(rng, 0.1));
      if (chance(rng, 0.03)) sig_text = sig_text.substr(1);
      std::string line = "kette\t" + gen_text + "\t" + key_text + "\t" + sig_text;
      if (chance(rng, 0.03)) line += "\r";
      lines.push_back(line);
    }
    std::string text = "OTA2\nfassung\t5\n";
    for (const std::string& l : lines) text += l + "\n";
    const Key& trusted = keys[start % 7].pub;

    publish::ChainWalk publisher = publish::walk_key_chain(text, trusted, spare, start);
    Outcome device = device_walk(text, trusted, spare, start);
    Outcome reference = reference_walk(text, trusted, spare, start);
    ASSERT_EQ(device.generation, reference.generation) << text;
    ASSERT_EQ(device.broken, reference.broken) << text;
    ASSERT_EQ(device.key, reference.key) << text;
    ASSERT_EQ(publisher.generation, device.generation) << text;
    ASSERT_EQ(publisher.broken, device.broken) << text;
    ASSERT_TRUE(std::equal(publisher.key.begin(), publisher.key.end(), device.key.begin())) << text;
    // One line of report per step taken, and one for the step it stopped at.
    ASSERT_EQ(publisher.steps.size(), publisher.generation - start + (publisher.broken ? 1 : 0)) << text;
    ASSERT_EQ(publisher.keys.size(), publisher.generation - start) << text;
    if (device.broken) {
      broken++;
    } else if (device.generation > start) {
      moved++;
    } else {
      stayed++;
    }
  }
  EXPECT_GT(moved, 300u);
  EXPECT_GT(broken, 300u);
  EXPECT_GT(stayed, 300u);
  ota::hold_catalog_text(0);
}

// ---------------------------------------------------------------------------------------
// The size of the overlay journal

class JournalAgreement : public ::testing::Test {
 protected:
  // The device code's absolute paths go below an empty directory, so that no real path of
  // this machine decides a line's flag (the flags do not change the length anyway).
  void SetUp() override {
    char tmpl[] = "/tmp/ota-journal-root-XXXXXX";
    root_ = mkdtemp(tmpl);
    snprintf(ota::host_root, sizeof ota::host_root, "%s", root_.c_str());
  }
  void TearDown() override {
    ota::host_root[0] = 0;
    ota::hold_catalog_text(0);
    std::filesystem::remove_all(root_);
  }
  std::string root_;
};

std::string valid_name(Rng& rng, std::size_t length) {
  std::string n;
  for (std::size_t k = 0; k < length; k++) n.push_back("abcxyz019._-"[k == 0 ? below(rng, 9) : below(rng, 12)]);
  return n;
}

TEST_F(JournalAgreement, TheJournalSizeCheckAgreesWithTheDevicesJournal) {
  Rng rng(18008);
  std::size_t fits = 0;
  std::size_t too_long = 0;
  std::vector<char> journal(ota::kJournalLimit + 1);
  for (int i = 0; i < 2000; i++) {
    std::vector<std::string> targets;
    std::vector<publish::LinkEntry> links;
    // Around the limit: lines of up to 61 bytes, some 100 to 200 of them.
    std::size_t files = below(rng, 220);
    std::size_t link_count = below(rng, 70);
    std::string text = "OTA2\nsystem\t1\tabcdefg\n";
    for (std::size_t k = 0; k < files; k++) {
      std::size_t length = 1 + below(rng, 59);
      std::string t = chance(rng, 0.5) || length < 7 ? valid_name(rng, length)
                                                     : "/etc/" + valid_name(rng, length - 5);
      targets.push_back(t);
      text += "sysfile\tfile\th\t1\tf\t" + t + "\n";
    }
    for (std::size_t k = 0; k < link_count; k++) {
      std::string path = "/apps/" + valid_name(rng, 1 + below(rng, 53));
      std::string target = "/bin/" + valid_name(rng, 1 + below(rng, 54));
      links.push_back({path, target});
      text += "syslink\t" + path + "\t" + target + "\n";
    }
    ASSERT_LE(text.size(), ota::kCatalogBytes);
    std::copy(text.begin(), text.end(), ota::catalog.text);
    ota::hold_catalog_text(text.size());
    ota::i64 device = ota::build_overlay_journal(journal.data());
    std::optional<std::size_t> publisher;
    try {
      publisher = publish::check_overlay_journal(targets, links);
    } catch (const publish::Error&) {
    }
    ASSERT_EQ(publisher.has_value(), device >= 0) << files << " files, " << link_count << " links";
    if (publisher) {
      ASSERT_EQ(*publisher, static_cast<std::size_t>(device));
      fits++;
    } else {
      too_long++;
    }
  }
  EXPECT_GT(fits, 300u);
  EXPECT_GT(too_long, 300u);
}

}  // namespace
