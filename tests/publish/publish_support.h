#pragma once
// Helpers for the publisher's tests: a scratch directory, running ota-publish as a child
// process with its output captured, and independent checks of what it wrote (OpenSSL for
// Ed25519 and SHA-256, zlib for gzip, and the device's own verifier).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <source_location>
#include <sstream>
#include <string>
#include <vector>

#include "bytes.h"
#include "files.h"
#include "run.h"
#include "signing.h"
#include "trust/ed25519.h"
#include "zlib_reference.h"

namespace publish_test {

using Outcome = Ran;

// Runs ota-publish with the given words in `cwd`, with standard output and error captured.
inline Outcome publish(const std::vector<std::string>& words, const std::string& cwd = "/tmp") {
  return run_program(OTA_PUBLISH, words, cwd);
}

// Holds a run of ota-publish to its whole outcome: the exit status, all it wrote to standard
// output and all it wrote to standard error. A mismatch is reported at the caller's line.
inline void expect_outcome(const Outcome& r, int status, const std::string& out, const std::string& err,
                           std::source_location where = std::source_location::current()) {
  ::testing::ScopedTrace trace(where.file_name(), static_cast<int>(where.line()), "the outcome of ota-publish");
  EXPECT_EQ(r.status, status);
  EXPECT_EQ(r.out, out);
  EXPECT_EQ(r.err, err);
}

class Scratch {
 public:
  Scratch() {
    char tmpl[] = "/tmp/ota-publish-test-XXXXXX";
    path_ = mkdtemp(tmpl);
  }
  ~Scratch() { std::filesystem::remove_all(path_); }
  std::string operator()(const std::string& name) const { return path_ + "/" + name; }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

inline bool exists(const std::string& path) {
  struct stat st {};
  return lstat(path.c_str(), &st) == 0;
}

// Every name in a directory, hidden ones included, sorted.
inline std::vector<std::string> names_in(const std::string& dir) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) names.push_back(entry.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

// The device's own verifier.
inline bool device_verify(const std::string& pub, const std::string& message, const std::string& sig) {
  if (pub.size() != 32 || sig.size() != 64) return false;
  return ota::ed25519_verify(reinterpret_cast<const ota::u8*>(pub.data()),
                             reinterpret_cast<const ota::u8*>(message.data()), message.size(),
                             reinterpret_cast<const ota::u8*>(sig.data())) == 1;
}

// Both verifiers must agree that the signature holds.
inline bool verifies(const std::string& pub, const std::string& message, const std::string& sig) {
  return openssl_verifies(pub, message, sig) && device_verify(pub, message, sig);
}

// Signs with a PEM private key file, for tests that hand-edit a catalog and sign it again.
inline std::string openssl_sign(const std::string& key_path, const std::string& message) {
  std::string pem = read_all(key_path);
  BIO* bio = BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()));
  EVP_PKEY* key = PEM_read_bio_PrivateKey(bio, nullptr, nullptr, nullptr);
  BIO_free(bio);
  if (key == nullptr) return "";
  EVP_MD_CTX* ctx = EVP_MD_CTX_new();
  unsigned char sig[64];
  size_t len = sizeof sig;
  bool ok = EVP_DigestSignInit(ctx, nullptr, nullptr, nullptr, key) == 1 &&
            EVP_DigestSign(ctx, sig, &len, reinterpret_cast<const unsigned char*>(message.data()), message.size()) == 1;
  EVP_MD_CTX_free(ctx);
  EVP_PKEY_free(key);
  return ok ? std::string(reinterpret_cast<char*>(sig), len) : "";
}

// The lines of a text, without their LFs.
inline std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  std::size_t pos = 0;
  while (pos < text.size()) {
    std::size_t lf = text.find('\n', pos);
    if (lf == std::string::npos) lf = text.size();
    lines.push_back(text.substr(pos, lf - pos));
    pos = lf + 1;
  }
  return lines;
}

inline std::vector<std::string> fields_of(const std::string& line) {
  std::vector<std::string> fields;
  std::size_t pos = 0;
  for (;;) {
    std::size_t tab = line.find('\t', pos);
    fields.push_back(line.substr(pos, tab == std::string::npos ? std::string::npos : tab - pos));
    if (tab == std::string::npos) break;
    pos = tab + 1;
  }
  return fields;
}

// What check writes to standard error when it refuses a source: one line per problem, then
// their count.
inline std::string check_refused(const std::vector<std::string>& problems) {
  std::string err;
  for (const std::string& problem : problems) err += "check: PROBLEM: " + problem + "\n";
  return err + "check: REFUSED -- " + std::to_string(problems.size()) + " problem(s)\n";
}

// The size of a file as a decimal text, for outputs that name the size of something made
// by zlib (its exact bytes may change with zlib's version).
inline std::string size_text(const std::string& path) { return std::to_string(read_all(path).size()); }

// What kernel prints for a stand-in image it wrote.
inline std::string kernel_said(const std::string& path, const std::string& build, const std::string& commit,
                               const std::string& health = "good", int size = 4096) {
  return "ota-publish: wrote " + path + ": " + std::to_string(size) + " bytes, TAVI-KERNEL build=" + build +
         " commit=" + commit + " health=" + health + "\n";
}

// What system prints for a source it wrote to `dir`: the summary, then the size of the
// VERZEICHNIS (as text: a source with gzip variants has it read back, since their sizes
// are zlib's), the overlay journal and the key that signed it.
inline std::string system_said(const std::string& dir, const std::string& summary, const std::string& bytes,
                               int journal, const std::string& pub) {
  return "ota-publish: wrote " + dir + ": " + summary + "\nota-publish: VERZEICHNIS " + bytes +
         " of 32767 bytes, overlay journal " + std::to_string(journal) + " of 7900 bytes, signed by " +
         to_hex(read_all(pub)) + "\n";
}

// What sign prints for the files it signed, in order, with the key whose 32 raw bytes are
// given: one line per signature with the signed file's size and SHA-256, then the count.
inline std::string sign_said(const std::vector<std::string>& files, const std::string& pub_bytes) {
  std::string out;
  for (const std::string& file : files) {
    std::string data = read_all(file);
    out += "ota-publish: wrote " + file + ".sig (" + std::to_string(data.size()) + " bytes signed, SHA-256 " +
           sha256_hex(data) + ")\n";
  }
  return out + "ota-publish: " + std::to_string(files.size()) + " signature(s) by " + to_hex(pub_bytes) + "\n";
}

// What keygen prints for a key pair it wrote to PREFIX.key and PREFIX.pub; the key is drawn
// at random, so its hex is read back from the public key file.
inline std::string keygen_said(const std::string& prefix) {
  return "ota-publish: wrote " + prefix + ".key (private, mode 0600) and " + prefix +
         ".pub (public, 32 bytes)\nota-publish: public key " + to_hex(read_all(prefix + ".pub")) + "\n";
}

// A scratch directory with four key pairs (k0 to k3) and a spare key made by the tool itself.
class KeyedScratch : public Scratch {
 public:
  KeyedScratch() {
    for (const char* name : {"k0", "k1", "k2", "k3", "spare"}) {
      Outcome r = publish({"keygen", "--out", (*this)(name)});
      expect_outcome(r, 0, keygen_said((*this)(name)), "");
    }
  }
  std::string key(const std::string& name) const { return (*this)(name + ".key"); }
  std::string pub(const std::string& name) const { return (*this)(name + ".pub"); }
};

}  // namespace publish_test
