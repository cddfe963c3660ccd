// The trusted key, the spare key, key generations and the walk along key changes.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "runtime/text.h"
#include "signing.h"
#include "test_support.h"
#include "trust/catalog_text.h"
#include "trust/keys.h"

using namespace ota;

namespace {

const TestKey k1 = TestKey::from_seed(1);
const TestKey k2 = TestKey::from_seed(2);
const TestKey k3 = TestKey::from_seed(3);
const TestKey k4 = TestKey::from_seed(4);
const TestKey spare = TestKey::from_seed(9);
const TestKey stranger = TestKey::from_seed(7);

void hold_catalog(const std::string& text) {
  memcpy(catalog.text, text.data(), text.size());
  hold_catalog_text(text.size());
}

void trust_state(const TestKey& trusted, u64 generation, const TestKey* spare_key) {
  memcpy(trust.trusted_key, trusted.pub.data(), 32);
  trust.stored_generation = trust.current_generation = generation;
  trust.spare_present = spare_key != nullptr;
  if (spare_key != nullptr) memcpy(trust.spare_key, spare_key->pub.data(), 32);
}

bool trusted_is(const TestKey& k) { return memcmp(trust.trusted_key, k.pub.data(), 32) == 0; }

}  // namespace

TEST(Hex, DigitsAndExactLength) {
  EXPECT_EQ(hex_digit_value('0'), 0u);
  EXPECT_EQ(hex_digit_value('f'), 15u);
  EXPECT_EQ(hex_digit_value('F'), 15u);
  EXPECT_EQ(hex_digit_value('g'), 16u);
  EXPECT_EQ(hex_digit_value(0), 16u);
  u8 out[2];
  EXPECT_TRUE(hex_decode("a0FF", out, 2));
  EXPECT_EQ(out[0], 0xa0);
  EXPECT_EQ(out[1], 0xff);
  EXPECT_FALSE(hex_decode("a0F", out, 2));
  EXPECT_FALSE(hex_decode("a0FF0", out, 2));
  EXPECT_FALSE(hex_decode("a0xF", out, 2));
}

TEST(KeyChain, LinesInAnyOrderAdvanceInSeveralPasses) {
  // A device at generation 1 reads the lines for generations 3 and 2, in that order.
  hold_catalog("OTA2\n" + chain_line(3, k3, k2) + chain_line(2, k2, k1));
  trust_state(k1, 1, nullptr);
  follow_key_chain();
  EXPECT_FALSE(trust.chain_broken);
  EXPECT_EQ(trust.current_generation, 3u);
  EXPECT_EQ(trust.stored_generation, 1u);
  EXPECT_TRUE(trusted_is(k3));
}

TEST(KeyChain, OtherGenerationsArePassedOver) {
  // At generation 5 the lines for 1 to 5 and 7 are ignored.
  std::string text = "OTA2\n";
  for (int g = 1; g <= 5; g++) text += chain_line(g, k2, stranger);
  text += chain_line(7, k2, stranger);
  hold_catalog(text);
  trust_state(k1, 5, nullptr);
  follow_key_chain();
  EXPECT_FALSE(trust.chain_broken);
  EXPECT_EQ(trust.current_generation, 5u);
  EXPECT_TRUE(trusted_is(k1));
}

TEST(KeyChain, KeyFieldOfWrongLengthBreaksTheChain) {
  for (int extra : {-1, 1}) {
    std::string line = chain_line(2, k2, k1);
    std::string key = to_hex(k2.pub_bytes());
    std::string bad = extra < 0 ? key.substr(0, 63) : key + "0";
    line.replace(line.find(key), key.size(), bad);
    hold_catalog("OTA2\n" + line);
    trust_state(k1, 1, nullptr);
    follow_key_chain();
    EXPECT_TRUE(trust.chain_broken) << extra;
    EXPECT_EQ(trust.current_generation, 1u);
  }
}

TEST(KeyChain, CapitalHexIsAcceptedAndSignedAsWritten) {
  hold_catalog("OTA2\n" + chain_line(2, k2, k1, true));
  trust_state(k1, 1, nullptr);
  follow_key_chain();
  EXPECT_FALSE(trust.chain_broken);
  EXPECT_EQ(trust.current_generation, 2u);
  EXPECT_TRUE(trusted_is(k2));
}

TEST(KeyChain, SpareKeySignsAStepAndTheNextNeedsTheNewKeyOrTheSpare) {
  hold_catalog("OTA2\n" + chain_line(2, k2, spare) + chain_line(3, k3, k2) + chain_line(4, k4, spare));
  trust_state(k1, 1, &spare);
  follow_key_chain();
  EXPECT_FALSE(trust.chain_broken);
  EXPECT_EQ(trust.current_generation, 4u);
  EXPECT_TRUE(trusted_is(k4));
}

TEST(KeyChain, AStepSignedByTheOldKeyAfterAChangeBreaks) {
  hold_catalog("OTA2\n" + chain_line(2, k2, k1) + chain_line(3, k3, k1));
  trust_state(k1, 1, nullptr);
  follow_key_chain();
  EXPECT_TRUE(trust.chain_broken);
  EXPECT_EQ(trust.current_generation, 2u);  // the sound step is kept
  EXPECT_TRUE(trusted_is(k2));
}

TEST(KeyChain, BrokenAtEachField) {
  std::string good = chain_line(2, k2, k1);
  // Each variant spoils one field of the line for generation 2.
  const std::string variants[] = {
      "kette\t2\t\t" + good.substr(good.find('\t', 8) + 1),           // key missing
      good.substr(0, good.rfind('\t')) + "\n",                          // signature missing
      good.substr(0, good.rfind('\t') + 1) + std::string(128, 'g') + "\n",  // signature not hex
      good.substr(0, good.size() - 2) + "\n",                           // signature 127 characters
      chain_line(2, k2, stranger),                                      // signed by a stranger
  };
  for (const std::string& line : variants) {
    hold_catalog("OTA2\n" + line);
    trust_state(k1, 1, nullptr);
    follow_key_chain();
    EXPECT_TRUE(trust.chain_broken) << line;
    EXPECT_EQ(trust.current_generation, 1u);
  }
  // A generation field that is missing only makes the line someone else's.
  hold_catalog("OTA2\nkette\t\t" + to_hex(k2.pub_bytes()) + "\tab\n");
  trust_state(k1, 1, nullptr);
  follow_key_chain();
  EXPECT_FALSE(trust.chain_broken);
}

TEST(CatalogSignature, SpareKeyIsTriedOnlyWhenLoadedAndOnlyAfterTheTrustedKey) {
  std::string message = "OTA2\nfassung\t3\n";
  const u8* m = reinterpret_cast<const u8*>(message.data());
  std::string by_spare = spare.sign(message);
  memcpy(trust.signature, by_spare.data(), 64);
  trust_state(stranger, 0, &spare);
  EXPECT_TRUE(verify_catalog_signature(m, message.size()));
  EXPECT_TRUE(trust.spare_key_used);
  trust_state(stranger, 0, nullptr);
  EXPECT_FALSE(verify_catalog_signature(m, message.size()));
  EXPECT_FALSE(trust.spare_key_used);
  // Both would verify: the trusted key wins and the flag stays clear.
  trust_state(spare, 0, &spare);
  EXPECT_TRUE(verify_catalog_signature(m, message.size()));
  EXPECT_FALSE(trust.spare_key_used);
}

TEST(TrustedKeys, LoadedFromTheDeviceFiles) {
  DeviceRoot root;
  EXPECT_FALSE(load_trusted_keys());
  root.put("/system/schluessel.pub", k1.pub_bytes().substr(0, 31));
  EXPECT_FALSE(load_trusted_keys());
  root.put("/system/schluessel.pub", k1.pub_bytes() + "extra");
  root.put("/system/SCHLUESSELGEN", "00000004\n");
  root.put("/system/ersatz.pub", spare.pub_bytes().substr(0, 31));
  EXPECT_TRUE(load_trusted_keys());
  EXPECT_TRUE(trusted_is(k1));
  EXPECT_EQ(trust.stored_generation, 4u);
  EXPECT_EQ(trust.current_generation, 4u);
  EXPECT_FALSE(trust.spare_present);
  EXPECT_FALSE(spare_key_file_present());
  root.put("/system/ersatz.pub", spare.pub_bytes());
  EXPECT_TRUE(load_trusted_keys());
  EXPECT_TRUE(trust.spare_present);
  EXPECT_TRUE(spare_key_file_present());
}

TEST(TrustedKeys, VersionAndGenerationFiles) {
  DeviceRoot root;
  EXPECT_EQ(read_installed_version(), 0u);
  EXPECT_TRUE(write_installed_version(12));
  EXPECT_EQ(root.get("/system/FASSUNG"), "00000012\n");
  root.put("/system/SCHLUESSELGEN", "99999999\nxyz");
  EXPECT_TRUE(write_key_generation(3));
  EXPECT_EQ(root.get("/system/SCHLUESSELGEN"), "00000003\nxyz");
  EXPECT_EQ(read_key_generation(), 3u);
}
