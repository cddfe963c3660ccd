// Keys in a PKCS#11 token: keygen makes the pair inside the token and writes only the
// public key; catalog, system, chain and sign take a pkcs11: URI wherever they take a key
// file and sign through the token with CKM_EDDSA; every way of getting the key wrong is one
// line on standard error, exit status 1 and nothing written. The token is SoftHSM2, a real
// PKCS#11 module; the test looks into it through the same interface.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <p11-kit/pkcs11.h>
#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <optional>

#include "publish_support.h"
#include "token_support.h"

using namespace publish_test;
using token_test::SoftTokens;

namespace {

// What the test sees of one object in a token.
struct TokenObject {
  CK_OBJECT_CLASS kind = 0;
  std::string label;
  std::string id;
  CK_KEY_TYPE key_type = 0;
  std::optional<bool> sensitive;
  std::optional<bool> extractable;
  std::optional<bool> never_extractable;
  std::string ec_point;
  CK_RV value_read = CKR_OK;  // what asking for the private value gave
};

// Where a token sits and what it is called, for URIs that choose it by other attributes
// than its label.
struct TokenInfo {
  CK_SLOT_ID slot = 0;
  std::string serial;
  std::string slot_description;  // percent-encoded for a URI
  std::string library_version;
};

// A PKCS#11 session of the test's own with a token, logged in as the user.
class Inspector {
 public:
  explicit Inspector(const std::string& token) {
    void* module = dlopen(token_test::softhsm2_module().c_str(), RTLD_NOW | RTLD_LOCAL);
    if (module == nullptr) {
      error_ = std::string("dlopen: ") + dlerror();
      return;
    }
    auto get_list = reinterpret_cast<CK_C_GetFunctionList>(dlsym(module, "C_GetFunctionList"));
    if (get_list == nullptr || get_list(&f_) != CKR_OK || f_->C_Initialize(nullptr) != CKR_OK) {
      error_ = "the module did not start";
      return;
    }
    CK_SLOT_ID slots[16];
    CK_ULONG n = 16;
    f_->C_GetSlotList(CK_TRUE, slots, &n);
    for (CK_ULONG i = 0; i < n; ++i) {
      CK_TOKEN_INFO info{};
      f_->C_GetTokenInfo(slots[i], &info);
      std::string label = trimmed(info.label, sizeof info.label);
      if (label != token) continue;
      CK_SLOT_INFO slot{};
      CK_INFO library{};
      f_->C_GetSlotInfo(slots[i], &slot);
      f_->C_GetInfo(&library);
      info_.slot = slots[i];
      info_.serial = trimmed(info.serialNumber, sizeof info.serialNumber);
      for (char c : trimmed(slot.slotDescription, sizeof slot.slotDescription)) {
        info_.slot_description += c == ' ' ? std::string("%20") : std::string(1, c);
      }
      info_.library_version =
          std::to_string(library.libraryVersion.major) + "." + std::to_string(library.libraryVersion.minor);
      if (f_->C_OpenSession(slots[i], CKF_SERIAL_SESSION | CKF_RW_SESSION, nullptr, nullptr, &session_) != CKR_OK ||
          f_->C_Login(session_, CKU_USER, (CK_UTF8CHAR_PTR)token_test::kUserPin, 4) != CKR_OK) {
        error_ = "cannot log in";
      }
      return;
    }
    error_ = "no token " + token;
  }
  ~Inspector() {
    if (f_ != nullptr) f_->C_Finalize(nullptr);
  }
  const std::string& error() const { return error_; }
  const TokenInfo& info() const { return info_; }

  std::vector<TokenObject> objects() {
    std::vector<TokenObject> out;
    if (!error_.empty()) {
      ADD_FAILURE() << "cannot look into the token: " << error_;
      return out;
    }
    for (CK_OBJECT_HANDLE h : handles()) {
      TokenObject o;
      o.kind = number(h, CKA_CLASS);
      o.label = bytes(h, CKA_LABEL).value_or("");
      o.id = bytes(h, CKA_ID).value_or("");
      o.key_type = number(h, CKA_KEY_TYPE);
      o.ec_point = bytes(h, CKA_EC_POINT).value_or("");
      if (o.kind == CKO_PRIVATE_KEY) {
        o.sensitive = flag(h, CKA_SENSITIVE);
        o.extractable = flag(h, CKA_EXTRACTABLE);
        o.never_extractable = flag(h, CKA_NEVER_EXTRACTABLE);
        CK_ATTRIBUTE value{CKA_VALUE, nullptr, 0};
        o.value_read = f_->C_GetAttributeValue(session_, h, &value, 1);
      }
      out.push_back(o);
    }
    return out;
  }

  // Removes the objects of one class and label (to make a token the tool must refuse).
  void destroy(CK_OBJECT_CLASS kind, const std::string& label) {
    for (CK_OBJECT_HANDLE h : handles()) {
      if (number(h, CKA_CLASS) == kind && bytes(h, CKA_LABEL) == label) f_->C_DestroyObject(session_, h);
    }
  }

 private:
  std::vector<CK_OBJECT_HANDLE> handles() {
    std::vector<CK_OBJECT_HANDLE> out;
    CK_OBJECT_HANDLE batch[32];
    CK_ULONG n = 0;
    f_->C_FindObjectsInit(session_, nullptr, 0);
    while (f_->C_FindObjects(session_, batch, 32, &n) == CKR_OK && n > 0) out.insert(out.end(), batch, batch + n);
    f_->C_FindObjectsFinal(session_);
    return out;
  }
  std::optional<std::string> bytes(CK_OBJECT_HANDLE h, CK_ATTRIBUTE_TYPE type) {
    CK_ATTRIBUTE a{type, nullptr, 0};
    if (f_->C_GetAttributeValue(session_, h, &a, 1) != CKR_OK) return std::nullopt;
    std::string value(a.ulValueLen, '\0');
    a.pValue = value.data();
    if (f_->C_GetAttributeValue(session_, h, &a, 1) != CKR_OK) return std::nullopt;
    return value;
  }
  CK_ULONG number(CK_OBJECT_HANDLE h, CK_ATTRIBUTE_TYPE type) {
    std::string v = bytes(h, type).value_or("");
    CK_ULONG out = CK_UNAVAILABLE_INFORMATION;
    if (v.size() == sizeof out) std::memcpy(&out, v.data(), sizeof out);
    return out;
  }
  std::optional<bool> flag(CK_OBJECT_HANDLE h, CK_ATTRIBUTE_TYPE type) {
    std::optional<std::string> v = bytes(h, type);
    if (!v || v->size() != 1) return std::nullopt;
    return (*v)[0] != 0;
  }

  static std::string trimmed(const unsigned char* field, size_t n) {
    std::string text(reinterpret_cast<const char*>(field), n);
    text.erase(text.find_last_not_of(' ') + 1);
    return text;
  }

  CK_FUNCTION_LIST_PTR f_ = nullptr;
  CK_SESSION_HANDLE session_ = CK_INVALID_HANDLE;
  TokenInfo info_;
  std::string error_;
};

// The 32 key bytes of an Edwards CKA_EC_POINT, raw or in a DER octet string.
std::string point_key(const std::string& point) {
  if (point.size() == 34 && point[0] == 0x04 && point[1] == 32) return point.substr(2);
  return point;
}

// Every path below a directory, hidden ones included, with each file's bytes.
std::map<std::string, std::string> tree(const std::string& dir) {
  std::map<std::string, std::string> out;
  for (const auto& e : std::filesystem::recursive_directory_iterator(dir)) {
    out[e.path().string()] = e.is_regular_file() ? read_all(e.path().string()) : "<dir>";
  }
  return out;
}

std::string pem_of(EVP_PKEY* key) {
  BIO* bio = BIO_new(BIO_s_mem());
  PEM_write_bio_PKCS8PrivateKey(bio, key, nullptr, nullptr, 0, nullptr, nullptr);
  char* data = nullptr;
  long len = BIO_get_mem_data(bio, &data);
  std::string pem(data, static_cast<size_t>(len));
  BIO_free(bio);
  EVP_PKEY_free(key);
  return pem;
}

// What check prints of the one-package source of TokenTest::catalog(), up to its verdict:
// `chain` holds the key changes followed, `gen` the generation whose key signed it.
std::string editor_checked(int bytes, const std::string& chain, const std::string& gen) {
  return "check: VERZEICHNIS: " + std::to_string(bytes) + " of 32767 bytes\n" + chain +
         "check: signature ok with the key of generation " + gen +
         "\n"
         "check: marker OTA2 ok\n"
         "check: version offered: 7\n"
         "check: package editor: editor.tpk, 3015 bytes, hash and signature ok, platform tavi-x86_64\n"
         "check: INDEX: 1 line(s), signature ok\n";
}

class TokenTest : public ::testing::Test {
 protected:
  Scratch store_;  // the token store, apart from what the commands write
  KeyedScratch work_;
  std::optional<SoftTokens> tokens_;

  void SetUp() override {
    ASSERT_TRUE(SoftTokens::available()) << "SoftHSM2 (" << token_test::softhsm2_module()
                                         << " and softhsm2-util) is missing; run scripts/setup.sh";
    tokens_.emplace(store_.path());
    ASSERT_TRUE(tokens_->init("ota"));
    write_all(work_("file.txt"), "any file of a source\n");
    write_all(work_("editor.tpk"), std::string(3000, 'e') + "editor package\n");
    // A kernel the boot loader would start: the publisher refuses any other.
    expect_outcome(publish({"kernel", "--build", "20250110", "--commit", "a1b2c3d4e5", "--out", work_("kernel")}), 0,
                   kernel_said(work_("kernel"), "20250110", "a1b2c3d4e5"), "");
  }

  // What keygen prints for a pair it made in `token` under `label`, its public key written
  // to PREFIX.pub. Without an id in the URI the id is drawn at random: it is read back from
  // the token.
  static std::string token_keygen_said(const std::string& token, const std::string& label, const std::string& prefix,
                                       std::string id_hex = "") {
    if (id_hex.empty()) {
      Inspector inspector(token);
      for (const TokenObject& o : inspector.objects()) {
        if (o.kind == CKO_PRIVATE_KEY && o.label == label) id_hex = to_hex(o.id);
      }
    }
    return "ota-publish: made an Ed25519 key pair in the token: key \"" + label + "\" (id " + id_hex + ") in token \"" +
           token + "\"; the private key cannot leave it\nota-publish: wrote " + prefix +
           ".pub (public, 32 bytes)\nota-publish: public key " + to_hex(read_all(prefix + ".pub")) + "\n";
  }

  // Makes a key pair in a token and returns the path of its public key file.
  std::string token_keygen(const std::string& token, const std::string& object,
                           std::source_location where = std::source_location::current()) {
    std::string pub = work_(token + "-" + object);
    Outcome r = publish({"keygen", "--key", SoftTokens::key(token, object), "--out", pub});
    expect_outcome(r, 0, token_keygen_said(token, object, pub), "", where);
    return pub + ".pub";
  }

  // What catalog prints for the one-package source of catalog(), signed by `pub`.
  std::string catalog_said(const std::string& out, const std::string& pub_path, int chains = 0, int bytes = 125) {
    return "ota-publish: wrote " + work_(out) + ": version 7, 1 package(s) (1 for tavi-x86_64), 0 blocked, " +
           std::to_string(chains) + " key change(s)\nota-publish: VERZEICHNIS " + std::to_string(bytes) +
           " of 32767 bytes, signed by " + to_hex(read_all(pub_path)) + "\n";
  }

  std::vector<std::string> catalog(const std::string& key, const std::string& out, const std::string& version = "7") {
    return {"catalog", "--key",     key,
            "--out",   work_(out),  "--version",
            version,   "--package", "editor:2.4:" + work_("editor.tpk") + ":tavi-x86_64"};
  }
  std::vector<std::string> system(const std::string& key, const std::string& out) {
    return {"system",
            "--key",
            key,
            "--out",
            work_(out),
            "--build",
            "20250110",
            "--commit",
            "a1b2c3d4e5",
            "--kernel",
            work_("kernel"),
            "--file",
            "taskbar=" + work_("file.txt") + ":gz"};
  }

  // A refusal: status 1, nothing on standard output, one line on standard error, and not
  // one file written or changed. The caller judges the line.
  Outcome run_refused(const std::vector<std::string>& words, std::source_location where) {
    ::testing::ScopedTrace trace(where.file_name(), static_cast<int>(where.line()), words.front() + " " + words[2]);
    std::map<std::string, std::string> before = tree(work_.path());
    Outcome r = publish(words);
    EXPECT_EQ(r.status, 1) << r.out << r.err;
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    EXPECT_EQ(tree(work_.path()), before) << "a refused command wrote something";
    return r;
  }

  // A refusal whose line is "ota-publish: " and `message`, whole.
  void expect_refused(const std::vector<std::string>& words, const std::string& message,
                      std::source_location where = std::source_location::current()) {
    Outcome r = run_refused(words, where);
    ::testing::ScopedTrace trace(where.file_name(), static_cast<int>(where.line()), "the refusal");
    EXPECT_EQ(r.err, "ota-publish: " + message + "\n");
  }

  // A refusal whose line is one of `messages` whole: for lists whose order is the
  // module's (SoftHSM2 keeps tokens and objects in files named by random UUIDs).
  void expect_refused_one_of(const std::vector<std::string>& words, const std::vector<std::string>& messages,
                             std::source_location where = std::source_location::current()) {
    Outcome r = run_refused(words, where);
    ::testing::ScopedTrace trace(where.file_name(), static_cast<int>(where.line()), "the refusal");
    bool found = false;
    for (const std::string& message : messages) found = found || r.err == "ota-publish: " + message + "\n";
    EXPECT_TRUE(found) << r.err;
  }

  // A refusal whose line begins with "ota-publish: " and `start`: for lines that end in
  // words of the system's loader or of the module, which change with their versions.
  void expect_refused_beginning(const std::vector<std::string>& words, const std::string& start,
                                std::source_location where = std::source_location::current()) {
    Outcome r = run_refused(words, where);
    ::testing::ScopedTrace trace(where.file_name(), static_cast<int>(where.line()), "the refusal");
    EXPECT_EQ(r.err.substr(0, start.size() + 13), "ota-publish: " + start) << r.err;
  }

  // Every command that takes a signing key, with this key.
  std::vector<std::vector<std::string>> every_use_of(const std::string& key) {
    return {{"sign", "--key", key, work_("file.txt")},
            catalog(key, "pakete"),
            system(key, "system"),
            {"chain", "--signer", key, "--new", work_.pub("k1"), "--generation", "1", "--out", work_("kette")}};
  }
};

using TokenKeygen = TokenTest;
using TokenSigning = TokenTest;
using TokenRefusals = TokenTest;
using TokenUri = TokenTest;

TEST_F(TokenKeygen, MakesThePairInsideTheTokenAndWritesOnlyThePublicKey) {
  Scratch out;
  Outcome r = publish({"keygen", "--key", SoftTokens::key("ota", "release"), "--out", out("release")});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(names_in(out.path()), (std::vector<std::string>{"release.pub"}));
  std::string pub = read_all(out("release.pub"));
  ASSERT_EQ(pub.size(), 32u);
  expect_outcome(r, 0, token_keygen_said("ota", "release", out("release")), "");

  Inspector token("ota");
  ASSERT_EQ(token.error(), "");
  std::vector<TokenObject> objects = token.objects();
  ASSERT_EQ(objects.size(), 2u) << "one public and one private key, nothing else";
  const TokenObject& priv = objects[0].kind == CKO_PRIVATE_KEY ? objects[0] : objects[1];
  const TokenObject& publ = objects[0].kind == CKO_PRIVATE_KEY ? objects[1] : objects[0];
  ASSERT_EQ(priv.kind, CKO_PRIVATE_KEY);
  ASSERT_EQ(publ.kind, CKO_PUBLIC_KEY);
  EXPECT_EQ(priv.key_type, CKK_EC_EDWARDS);
  EXPECT_EQ(priv.label, "release");
  EXPECT_EQ(publ.label, "release");
  EXPECT_EQ(priv.id.size(), 16u) << "a fresh id ties the two halves together";
  EXPECT_EQ(priv.id, publ.id);
  EXPECT_EQ(priv.sensitive, true);
  EXPECT_EQ(priv.extractable, false);
  EXPECT_EQ(priv.never_extractable, true);
  EXPECT_EQ(priv.value_read, static_cast<CK_RV>(CKR_ATTRIBUTE_SENSITIVE)) << "the private value must not come out";
  EXPECT_EQ(point_key(publ.ec_point), pub);
}

TEST_F(TokenKeygen, TheUriIdBecomesTheIdOfThePair) {
  Scratch out;
  Outcome made =
      publish({"keygen", "--key", SoftTokens::uri("token=ota;object=signing%20key;id=%0a%FF"), "--out", out("k")});
  expect_outcome(made, 0, token_keygen_said("ota", "signing key", out("k"), "0aff"), "");
  Inspector token("ota");
  for (const TokenObject& o : token.objects()) {
    EXPECT_EQ(o.label, "signing key");
    EXPECT_EQ(o.id, std::string("\x0a\xff", 2));
  }
  // The same key is found again by its id alone, and by its label alone.
  write_all(out("m"), "message");
  Outcome r = publish({"sign", "--key", SoftTokens::uri("token=ota;id=%0A%ff"), out("m")});
  expect_outcome(r, 0, sign_said({out("m")}, read_all(out("k.pub"))), "");
  EXPECT_TRUE(verifies(read_all(out("k.pub")), "message", read_all(out("m.sig"))));
  r = publish({"sign", "--force", "--key", SoftTokens::uri("object=signing%20key"), out("m")});
  expect_outcome(r, 0, sign_said({out("m")}, read_all(out("k.pub"))), "");
}

TEST_F(TokenKeygen, AKeyInTheTokenIsNeverReplaced) {
  token_keygen("ota", "release");
  size_t objects = 0;
  {
    Inspector before("ota");
    objects = before.objects().size();
  }
  ASSERT_EQ(objects, 2u);
  expect_refused({"keygen", "--key", SoftTokens::key("ota", "release"), "--out", work_("again")},
                 "token \"ota\" already holds an object labelled \"release\"; a key is never replaced (choose another "
                 "object=)");
  Outcome r = publish({"keygen", "--key", SoftTokens::uri("token=ota;object=other;id=%01"), "--out", work_("one")});
  expect_outcome(r, 0, token_keygen_said("ota", "other", work_("one"), "01"), "");
  expect_refused({"keygen", "--key", SoftTokens::uri("token=ota;object=third;id=%01"), "--out", work_("two")},
                 "token \"ota\" already holds an object with id 01; a key is never replaced (choose another id=)");
  Inspector after("ota");
  EXPECT_EQ(after.objects().size(), objects + 2);
}

TEST_F(TokenKeygen, APairWhosePublicKeyCannotBeWrittenIsRemovedFromTheToken) {
  // The directory for the public key is missing: the pair is made, the file cannot be
  // written, and the pair goes again, so the label stays free.
  expect_refused({"keygen", "--key", SoftTokens::key("ota", "release"), "--out", work_("missing/release")},
                 "cannot write \"" + work_("missing/release.pub") + "\": the directory \"" + work_("missing") +
                     "\" does not exist (make it first)");
  {
    Inspector token("ota");
    EXPECT_TRUE(token.objects().empty());
  }
  std::filesystem::create_directories(work_("missing"));
  Outcome r = publish({"keygen", "--key", SoftTokens::key("ota", "release"), "--out", work_("missing/release")});
  expect_outcome(r, 0, token_keygen_said("ota", "release", work_("missing/release")), "");
}

TEST_F(TokenKeygen, AnExistingPublicKeyFileStopsItBeforeTheTokenIsTouched) {
  write_all(work_("taken.pub"), std::string(32, 'x'));
  expect_refused({"keygen", "--key", SoftTokens::key("ota", "release"), "--out", work_("taken")},
                 "public key \"" + work_("taken.pub") + "\" already exists; it is never overwritten");
  expect_refused({"keygen", "--key", SoftTokens::uri("token=ota"), "--out", work_("nolabel")},
                 "the PKCS#11 URI for a new key names no object; add object=NAME, the label the key pair gets");
  Inspector token("ota");
  EXPECT_TRUE(token.objects().empty());
  // keygen --key takes a token only; a file path there is a mistake in the command line.
  Outcome r = publish({"keygen", "--key", work_("some.key"), "--out", work_("x")});
  expect_outcome(r, 2, "",
                 "ota-publish keygen: keygen --key takes a PKCS#11 URI (pkcs11:...); without --key it writes a key "
                 "file\n(ota-publish keygen --help shows the options)\n");
  EXPECT_FALSE(exists(work_("x.pub")));
}

TEST_F(TokenSigning, SignWritesTheSixtyFourByteSignatureOfAnyFile) {
  std::string pub = read_all(token_keygen("ota", "release"));
  Outcome r = publish({"sign", "--key", SoftTokens::key("ota", "release"), work_("file.txt"), work_("editor.tpk")});
  ASSERT_EQ(r.status, 0) << r.err;
  expect_outcome(r, 0, sign_said({work_("file.txt"), work_("editor.tpk")}, pub), "");
  for (const char* name : {"file.txt", "editor.tpk"}) {
    std::string sig = read_all(work_(std::string(name) + ".sig"));
    ASSERT_EQ(sig.size(), 64u);
    EXPECT_TRUE(verifies(pub, read_all(work_(name)), sig)) << name;
  }
}

TEST_F(TokenSigning, ThePinComesFromTheUriAFileOrTheEnvironment) {
  std::string pub = read_all(token_keygen("ota", "release"));
  write_all(work_("pin"), "1234\n");
  std::vector<std::string> uris = {
      SoftTokens::uri("token=ota;object=release", "pin-source=file:" + work_("pin")),
      SoftTokens::uri("token=ota;object=release", "pin-source=file://" + work_("pin")),
      SoftTokens::uri("token=ota;object=release", "pin-source=" + work_("pin")),
  };
  for (const std::string& uri : uris) {
    SCOPED_TRACE(uri);
    Outcome r = publish({"sign", "--force", "--key", uri, work_("file.txt")});
    expect_outcome(r, 0, sign_said({work_("file.txt")}, pub), "");
    EXPECT_TRUE(verifies(pub, read_all(work_("file.txt")), read_all(work_("file.txt.sig")))) << uri;
  }
  setenv("OTA_PKCS11_PIN", "1234", 1);
  Outcome r = publish({"sign", "--force", "--key", SoftTokens::uri("token=ota;object=release", ""), work_("file.txt")});
  unsetenv("OTA_PKCS11_PIN");
  expect_outcome(r, 0, sign_said({work_("file.txt")}, pub), "");
}

TEST_F(TokenSigning, APackageSourceSignedThroughTheTokenIsAccepted) {
  std::string pub_path = token_keygen("ota", "release");
  std::string pub = read_all(pub_path);
  Outcome r = publish(catalog(SoftTokens::key("ota", "release"), "pakete"));
  ASSERT_EQ(r.status, 0) << r.err;
  expect_outcome(r, 0, catalog_said("pakete", pub_path), "");
  for (const char* name : {"VERZEICHNIS", "INDEX", "editor.tpk"}) {
    std::string file = work_("pakete/") + name;
    EXPECT_TRUE(verifies(pub, read_all(file), read_all(file + ".sig"))) << name;
  }
  r = publish({"check", work_("pakete"), "--trusted", pub_path});
  expect_outcome(r, 0, editor_checked(125, "", "0") + "check: ACCEPTED -- a device would take this source\n", "");
  // The same key signs a file key's way: the same inputs give the same bytes.
  expect_outcome(publish(catalog(SoftTokens::key("ota", "release"), "again")), 0, catalog_said("again", pub_path), "");
  EXPECT_EQ(tree(work_("again")).size(), tree(work_("pakete")).size());
  for (const std::string& name : names_in(work_("pakete"))) {
    EXPECT_EQ(read_all(work_("again/" + name)), read_all(work_("pakete/" + name))) << name;
  }
}

TEST_F(TokenSigning, ASystemSourceSignedThroughTheTokenIsAccepted) {
  std::string pub_path = token_keygen("ota", "release");
  Outcome r = publish(system(SoftTokens::key("ota", "release"), "system"));
  ASSERT_EQ(r.status, 0) << r.err;
  // The gzip variant's size, and so the VERZEICHNIS's, is zlib's: read back.
  const std::string bytes = size_text(work_("system/VERZEICHNIS"));
  expect_outcome(r, 0,
                 system_said(work_("system"), "build 20250110, commit a1b2c3d4e5, 1 overlay file(s), 0 link(s)", bytes,
                             9, pub_path),
                 "");
  EXPECT_TRUE(verifies(read_all(pub_path), read_all(work_("system/VERZEICHNIS")), read_all(work_("system/VERZEICHNIS.sig"))));
  r = publish({"check", work_("system"), "--trusted", pub_path, "--system"});
  expect_outcome(r, 0,
                 "check: VERZEICHNIS: " + bytes +
                     " of 32767 bytes\n"
                     "check: signature ok with the key of generation 0\n"
                     "check: marker OTA2 ok\n"
                     "check: system build 20250110, commit a1b2c3d4e5\n"
                     "check: kernel: kernel, 4096 bytes, hash ok\n"
                     "check: overlay file taskbar: file.txt.gz, " +
                     size_text(work_("system/file.txt.gz")) +
                     " bytes, unpacks to 21 bytes, hashes ok\n"
                     "check: overlay: 1 file(s), 0 link(s), journal 9 of 7900 bytes\n"
                     "check: ACCEPTED -- a device would take this source\n",
                 "");
}

TEST_F(TokenSigning, AKeyChangeSignedByOneTokenForAKeyInAnother) {
  ASSERT_TRUE(tokens_->init("ota-2026"));
  std::string old_pub = token_keygen("ota", "release");
  std::string new_pub = token_keygen("ota-2026", "release");
  ASSERT_NE(read_all(old_pub), read_all(new_pub));
  Outcome r = publish({"chain", "--signer", SoftTokens::key("ota", "release"), "--new", new_pub, "--generation", "1",
                       "--out", work_("kette-1")});
  ASSERT_EQ(r.status, 0) << r.err;
  expect_outcome(r, 0,
                 "ota-publish: wrote " + work_("kette-1") + ": key change to generation 1, new key " +
                     to_hex(read_all(new_pub)) + "\n",
                 "");
  std::vector<std::string> fields = fields_of(lines_of(read_all(work_("kette-1"))).at(0));
  ASSERT_EQ(fields.size(), 4u);
  EXPECT_EQ(fields[2], to_hex(read_all(new_pub)));
  EXPECT_TRUE(verifies(read_all(old_pub), "tavi-schluessel\t1\t" + fields[2], unhex(fields[3])));

  std::vector<std::string> words = catalog(SoftTokens::key("ota-2026", "release"), "pakete");
  words.insert(words.end(), {"--chain", work_("kette-1")});
  r = publish(words);
  expect_outcome(r, 0, catalog_said("pakete", new_pub, 1, 327), "");
  const std::string accepted = "check: ACCEPTED -- a device would take this source\n";
  r = publish({"check", work_("pakete"), "--trusted", old_pub});
  expect_outcome(r, 0,
                 editor_checked(327, "check: key change to generation 1 accepted, signed by the key of generation 0\n",
                                "1") +
                     accepted,
                 "");
  r = publish({"check", work_("pakete"), "--trusted", new_pub, "--generation", "1"});
  expect_outcome(r, 0, editor_checked(327, "", "1") + accepted, "");

  // The old token's key cannot sign a catalog that hands over to the new one.
  words = catalog(SoftTokens::key("ota", "release"), "wrong");
  words.insert(words.end(), {"--chain", work_("kette-1")});
  expect_refused(words,
                 "the signing key is not the key of generation 1, the newest key change; a device that follows the "
                 "changes checks the catalog with that key (give --spare PUB if the catalog is signed with the spare "
                 "key)");
}

TEST_F(TokenSigning, AFileKeyHandsOverToATokenKey) {
  std::string token_pub = token_keygen("ota", "release");
  expect_outcome(publish({"chain", "--signer", work_.key("k0"), "--new", token_pub, "--generation", "1", "--out",
                          work_("kette-1")}),
                 0,
                 "ota-publish: wrote " + work_("kette-1") + ": key change to generation 1, new key " +
                     to_hex(read_all(token_pub)) + "\n",
                 "");
  std::vector<std::string> words = catalog(SoftTokens::key("ota", "release"), "pakete");
  words.insert(words.end(), {"--chain", work_("kette-1")});
  expect_outcome(publish(words), 0, catalog_said("pakete", token_pub, 1, 327), "");
  Outcome r = publish({"check", work_("pakete"), "--trusted", work_.pub("k0")});
  expect_outcome(r, 0,
                 editor_checked(327, "check: key change to generation 1 accepted, signed by the key of generation 0\n",
                                "1") +
                     "check: ACCEPTED -- a device would take this source\n",
                 "");
}

TEST_F(TokenSigning, AnEd25519KeyImportedIntoTheTokenSignsAsItsFileDid) {
  // An existing key can be moved into a token; the signatures stay the same bytes.
  ASSERT_TRUE(tokens_->import("ota", work_.key("k0"), "imported", "0c0d"));
  expect_outcome(publish(catalog(work_.key("k0"), "from-file")), 0, catalog_said("from-file", work_.pub("k0")), "");
  expect_outcome(publish(catalog(SoftTokens::key("ota", "imported"), "from-token")), 0,
                 catalog_said("from-token", work_.pub("k0")), "");
  for (const std::string& name : names_in(work_("from-file"))) {
    EXPECT_EQ(read_all(work_("from-token/" + name)), read_all(work_("from-file/" + name))) << name;
  }
}

TEST_F(TokenRefusals, AWrongPin) {
  token_keygen("ota", "release");
  std::string key = SoftTokens::uri("token=ota;object=release", "pin-value=9999");
  const std::string refused =
      "token \"ota\" refused the PIN (CKR_PIN_INCORRECT); tokens lock the key after a few wrong PINs";
  for (const auto& words : every_use_of(key)) expect_refused(words, refused);
  expect_refused({"keygen", "--key", SoftTokens::uri("token=ota;object=new", "pin-value=9999"), "--out", work_("new")},
                 refused);
}

TEST_F(TokenRefusals, NoPinAnywhere) {
  token_keygen("ota", "release");
  std::string key = SoftTokens::uri("token=ota;object=release", "");
  for (const auto& words : every_use_of(key)) {
    expect_refused(words,
                   "no PIN for token \"ota\": the PKCS#11 URI has no pin-value or pin-source and OTA_PKCS11_PIN is "
                   "not set (ota-publish never asks for a PIN)");
  }
  expect_refused({"sign", "--key", SoftTokens::uri("token=ota;object=release", "pin-source=file:" + work_("nopin")),
                  work_("file.txt")},
                 "cannot read PIN file \"" + work_("nopin") + "\": No such file or directory");
  expect_refused({"sign", "--key", SoftTokens::uri("token=ota;object=release", "pin-source=|/usr/bin/pinentry"),
                  work_("file.txt")},
                 "PKCS#11 pin-source \"|/usr/bin/pinentry\" names a program; ota-publish reads a PIN only from a file "
                 "(pin-source=file:PATH) and never runs anything for it");
}

TEST_F(TokenRefusals, AMissingToken) {
  token_keygen("ota", "release");
  for (const auto& words : every_use_of(SoftTokens::key("otx", "release"))) {
    expect_refused(words, "no token \"otx\" in the PKCS#11 module \"" + token_test::softhsm2_module() +
                              "\" (tokens there: \"ota\")");
  }
  expect_refused({"keygen", "--key", SoftTokens::key("otx", "new"), "--out", work_("new")},
                 "no token \"otx\" in the PKCS#11 module \"" + token_test::softhsm2_module() +
                     "\" (tokens there: \"ota\")");
}

TEST_F(TokenRefusals, AMissingObject) {
  token_keygen("ota", "release");
  for (const auto& words : every_use_of(SoftTokens::key("ota", "relase"))) {
    expect_refused(words, "no private key \"relase\" in token \"ota\" (private keys there: \"release\")");
  }
  // A token whose public key object is gone: the tool cannot check what it would sign.
  std::string id_hex;
  {
    Inspector token("ota");
    for (const TokenObject& o : token.objects()) {
      if (o.kind == CKO_PRIVATE_KEY) id_hex = to_hex(o.id);
    }
    token.destroy(CKO_PUBLIC_KEY, "release");
  }
  expect_refused({"sign", "--key", SoftTokens::key("ota", "release"), work_("file.txt")},
                 "token \"ota\" holds no Ed25519 public key beside key \"release\" (id " + id_hex +
                     ") (same id); ota-publish needs it to check what it signs");
}

TEST_F(TokenRefusals, AKeyOfAnotherType) {
  // An ECDSA P-256 key and an RSA key, put into the token the way an operator would.
  write_all(store_("ec.pem"), pem_of(EVP_EC_gen("P-256")));
  write_all(store_("rsa.pem"), pem_of(EVP_RSA_gen(2048)));
  ASSERT_TRUE(tokens_->import("ota", store_("ec.pem"), "ec", "0a"));
  ASSERT_TRUE(tokens_->import("ota", store_("rsa.pem"), "rsa", "0b"));
  for (const auto& words : every_use_of(SoftTokens::key("ota", "ec"))) {
    expect_refused(words, "key \"ec\" (id 0a) in token \"ota\" is an ECDSA key; devices check Ed25519 signatures only");
  }
  for (const auto& words : every_use_of(SoftTokens::key("ota", "rsa"))) {
    expect_refused(words, "key \"rsa\" (id 0b) in token \"ota\" is an RSA key; devices check Ed25519 signatures only");
  }
}

TEST_F(TokenRefusals, AModuleThatCannotBeLoaded) {
  token_keygen("ota", "release");
  Dl_info zlib{};
  ASSERT_NE(dladdr(reinterpret_cast<void*>(&zlibVersion), &zlib), 0);
  struct Case {
    std::string module;
    std::string says;
    bool whole;  // false: the line ends in the loader's own words, held only up to them
  };
  std::vector<Case> cases = {
      {"/nonexistent/libpkcs11.so",
       "cannot load the PKCS#11 module \"/nonexistent/libpkcs11.so\": No such file or directory", true},
      {work_("file.txt"), "cannot load the PKCS#11 module \"" + work_("file.txt") + "\": ", false},
      {zlib.dli_fname,
       "cannot load the PKCS#11 module \"" + std::string(zlib.dli_fname) +
           "\": it has no C_GetFunctionList, so it is not a PKCS#11 module",
       true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.module);
    std::string key = "pkcs11:token=ota;object=release?module-path=" + c.module + "&pin-value=1234";
    std::vector<std::vector<std::string>> uses = every_use_of(key);
    uses.push_back({"keygen", "--key", key, "--out", work_("new")});
    for (const auto& words : uses) {
      if (c.whole) {
        expect_refused(words, c.says);
      } else {
        expect_refused_beginning(words, c.says);
      }
    }
  }
  // A module that loads but cannot start: SoftHSM2 without its configuration. The PKCS#11
  // code it answers with is the module's choice.
  setenv("SOFTHSM2_CONF", (store_.path() + "/missing.conf").c_str(), 1);
  expect_refused_beginning({"sign", "--key", SoftTokens::key("ota", "release"), work_("file.txt")},
                           "the PKCS#11 module \"" + token_test::softhsm2_module() + "\" did not start: CKR_");
}

TEST_F(TokenUri, AttributesPickTheTokenAndTheKey) {
  ASSERT_TRUE(tokens_->init("second token"));
  std::string first = read_all(token_keygen("ota", "release"));
  Outcome made = publish(
      {"keygen", "--key", SoftTokens::uri("token=second%20token;object=release;id=%42"), "--out", work_("second")});
  ASSERT_EQ(made.status, 0) << made.err;
  expect_outcome(made, 0, token_keygen_said("second token", "release", work_("second"), "42"), "");
  std::string second = read_all(work_("second.pub"));
  TokenInfo info;
  {
    Inspector token("ota");
    ASSERT_EQ(token.error(), "");
    info = token.info();
  }
  // Each URI must sign with the key named, shown by whose signature file.sig verifies.
  struct Case {
    std::string path;
    std::string key;
  };
  std::vector<Case> cases = {
      {"token=ota;object=release", first},
      {"token=second%20token;object=release", second},
      {"token=second%20token;id=B", second},
      {"token=second%20token;object=release;id=%42", second},
      {"token=second%20token", second},
      {"manufacturer=SoftHSM%20project;model=SoftHSM%20v2;token=ota", first},
      {"library-manufacturer=SoftHSM;library-description=Implementation%20of%20PKCS11;token=ota;type=private", first},
      {"library-version=" + info.library_version + ";token=ota", first},
      {"slot-id=" + std::to_string(info.slot) + ";object=release", first},
      {"serial=" + info.serial + ";object=release", first},
      {"slot-description=" + info.slot_description + ";slot-manufacturer=SoftHSM%20project;object=release", first},
  };
  for (const Case& c : cases) {
    std::string uri = SoftTokens::uri(c.path);
    SCOPED_TRACE(uri);
    Outcome r = publish({"sign", "--force", "--key", uri, work_("file.txt")});
    ASSERT_EQ(r.status, 0) << uri << "\n" << r.err;
    expect_outcome(r, 0, sign_said({work_("file.txt")}, c.key), "");
    EXPECT_TRUE(verifies(c.key, read_all(work_("file.txt")), read_all(work_("file.txt.sig")))) << uri;
  }
  // The scheme is not case-sensitive.
  std::string upper = SoftTokens::uri("token=ota;object=release");
  upper.replace(0, 6, "PKCS11");
  expect_outcome(publish({"sign", "--force", "--key", upper, work_("file.txt")}), 0,
                 sign_said({work_("file.txt")}, first), "");
  // A URI that fits two tokens or two keys names neither. The lists come in the module's
  // order, which is not the order the tokens and keys were made in.
  const std::string module = "the PKCS#11 module \"" + token_test::softhsm2_module() + "\"";
  expect_refused_one_of(
      {"sign", "--force", "--key", SoftTokens::uri("object=release"), work_("file.txt")},
      {"2 tokens of " + module + " match the URI (\"second token\", \"ota\"); name one with token=, serial= or slot-id=",
       "2 tokens of " + module + " match the URI (\"ota\", \"second token\"); name one with token=, serial= or slot-id="});
  Outcome other = publish({"keygen", "--key", SoftTokens::key("ota", "other"), "--out", work_("other")});
  expect_outcome(other, 0, token_keygen_said("ota", "other", work_("other")), "");
  expect_refused_one_of(
      {"sign", "--force", "--key", SoftTokens::uri("token=ota"), work_("file.txt")},
      {"2 private keys in token \"ota\" match the URI (\"other\", \"release\"); name one with object= or id=",
       "2 private keys in token \"ota\" match the URI (\"release\", \"other\"); name one with object= or id="});
  expect_refused_one_of(
      {"sign", "--force", "--key", SoftTokens::uri("token=ota;object=release;serial=0000"), work_("file.txt")},
      {"no token in " + module + " matches token \"ota\", serial \"0000\" (tokens there: \"second token\", \"ota\")",
       "no token in " + module + " matches token \"ota\", serial \"0000\" (tokens there: \"ota\", \"second token\")"});
  expect_refused(
      {"sign", "--force", "--key", SoftTokens::uri("token=ota;object=release;library-version=9.9"), work_("file.txt")},
      module + " is not the library the URI names: its version is \"" + info.library_version + "\"");
}

TEST_F(TokenUri, MalformedUrisAreRefusedBeforeAnyTokenIsOpened) {
  std::string module = token_test::softhsm2_module();
  struct Case {
    std::string uri;
    std::string says;
  };
  std::vector<Case> cases = {
      {"pkcs11:token=ota;objcet=release?module-path=" + module,
       "PKCS#11 URI attribute \"objcet\" is not one ota-publish knows"},
      {"pkcs11:token=ota;token=ota?module-path=" + module, "PKCS#11 URI attribute token is given twice"},
      {"pkcs11:token=ota;object=rel%4?module-path=" + module,
       "PKCS#11 URI attribute object has a broken percent escape (\"%\" must be followed by two hex digits)"},
      {"pkcs11:token=ota;object=rel%zzase?module-path=" + module,
       "PKCS#11 URI attribute object has a broken percent escape (\"%\" must be followed by two hex digits)"},
      {"pkcs11:token=ota;object=rel ease?module-path=" + module,
       "PKCS#11 URI attribute object holds the character \" \", which a URI writes percent-encoded as %20"},
      {"pkcs11:token=ota;object=a/b?module-path=" + module,
       "PKCS#11 URI attribute object holds the character \"/\", which a URI writes percent-encoded as %2F"},
      {"pkcs11:token=ota;;object=release?module-path=" + module,
       "PKCS#11 URI has an empty attribute in its path (a doubled \";\" or one at the end)"},
      {"pkcs11:token=ota;object?module-path=" + module, "PKCS#11 URI attribute \"object\" has no \"=\" and value"},
      {"pkcs11:token=ota;module-path=" + module,
       "PKCS#11 URI attribute \"module-path\" belongs in the query (after \"?\")"},
      {"pkcs11:token=ota?object=release&module-path=" + module,
       "PKCS#11 URI attribute \"object\" belongs in the path (before \"?\")"},
      {"pkcs11:token=ota;type=secret?module-path=" + module,
       "PKCS#11 URI type \"secret\" is not one of public, private, cert, secret-key, data"},
      {"pkcs11:token=ota;slot-id=one?module-path=" + module, "PKCS#11 URI slot-id \"one\" is not a decimal number"},
      {"pkcs11:token=ota;library-version=2.x?module-path=" + module,
       "PKCS#11 URI library-version \"2.x\" is not MAJOR or MAJOR.MINOR"},
      {"pkcs11:token=ota;library-version=2.256?module-path=" + module,
       "PKCS#11 URI library-version \"2.256\" is not MAJOR or MAJOR.MINOR"},
      {"pkcs11:token=ota?module-path=" + module + "&pin-value=1&pin-source=file:/p",
       "PKCS#11 URI gives both pin-value and pin-source; give one"},
      {"pkcs11:token=ota?module-path=" + module + "#frag", "a PKCS#11 URI has no fragment (\"#\")"},
      {"pkcs11:token=ota?", "PKCS#11 URI has a \"?\" with no query attribute after it"},
      {"pkcs11:token=ota;object=release",
       "the PKCS#11 URI names no module; add ?module-path=/path/to/module.so (for SoftHSM2: "
       "/usr/lib/softhsm/libsofthsm2.so)"},
      {"pkcs11:token=ota;object=release?module-name=softhsm2",
       "the PKCS#11 URI names a module-name but no module-path; ota-publish loads the module library that "
       "module-path names (add &module-path=/path/to/module.so)"},
      {"pkcs11:token=ota;object=release?module-path=libsofthsm2.so",
       "PKCS#11 module-path \"libsofthsm2.so\" is not an absolute path"},
      {"pkcs11:token=ota;object=release;type=public?module-path=" + module + "&pin-value=1234",
       "the PKCS#11 URI names type=public; signing needs the private key (type=private)"},
  };
  for (const Case& c : cases) {
    for (const auto& words : every_use_of(c.uri)) expect_refused(words, c.says);
  }
}

}  // namespace

#if defined(__SANITIZE_ADDRESS__)
// SoftHSM2 2.6 leaks a few bytes of its own when it decodes Edwards keys; the full stacks
// let the suppression see that the leak comes from the module.
extern "C" const char* __lsan_default_suppressions() { return "leak:libsofthsm2.so\n"; }
extern "C" const char* __asan_default_options() { return "fast_unwind_on_malloc=0"; }
extern "C" const char* __lsan_default_options() { return "print_suppressions=0"; }
#endif
