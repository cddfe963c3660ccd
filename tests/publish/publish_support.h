#pragma once
// Helpers for the publisher's tests: a scratch directory, running ota-publish as a child
// process with its output captured, and independent checks of what it wrote (OpenSSL for
// Ed25519 and SHA-256, zlib for gzip, and the device's verifier when it is built).
#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#if __has_include("trust/ed25519.h")
#include "trust/ed25519.h"
#define PUBLISH_TEST_DEVICE_VERIFY 1
#endif

namespace publish_test {

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

inline void put(const std::string& path, const std::string& content) {
  std::ofstream(path, std::ios::binary) << content;
}

inline std::string get(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

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

struct Outcome {
  int status = -1;
  std::string out;
  std::string err;
};

// Runs ota-publish with the given words in `cwd`, with standard output and error captured.
inline Outcome publish(const std::vector<std::string>& words, const std::string& cwd = "/tmp") {
  char out_tmpl[] = "/tmp/ota-publish-out-XXXXXX";
  char err_tmpl[] = "/tmp/ota-publish-err-XXXXXX";
  int out_fd = mkstemp(out_tmpl);
  int err_fd = mkstemp(err_tmpl);
  std::vector<std::string> all = {OTA_PUBLISH};
  all.insert(all.end(), words.begin(), words.end());
  std::vector<char*> argv;
  for (std::string& w : all) argv.push_back(w.data());
  argv.push_back(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    if (chdir(cwd.c_str()) != 0) _exit(126);
    dup2(out_fd, 1);
    dup2(err_fd, 2);
    execv(argv[0], argv.data());
    _exit(127);
  }
  int wstatus = 0;
  waitpid(pid, &wstatus, 0);
  Outcome run;
  run.status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : 128 + WTERMSIG(wstatus);
  close(out_fd);
  close(err_fd);
  run.out = get(out_tmpl);
  run.err = get(err_tmpl);
  unlink(out_tmpl);
  unlink(err_tmpl);
  return run;
}

inline bool openssl_verify(const std::string& pub, const std::string& message, const std::string& sig) {
  if (pub.size() != 32 || sig.size() != 64) return false;
  EVP_PKEY* key =
      EVP_PKEY_new_raw_public_key(EVP_PKEY_ED25519, nullptr, reinterpret_cast<const unsigned char*>(pub.data()), 32);
  if (key == nullptr) return false;
  EVP_MD_CTX* ctx = EVP_MD_CTX_new();
  bool ok = EVP_DigestVerifyInit(ctx, nullptr, nullptr, nullptr, key) == 1 &&
            EVP_DigestVerify(ctx, reinterpret_cast<const unsigned char*>(sig.data()), 64,
                             reinterpret_cast<const unsigned char*>(message.data()), message.size()) == 1;
  EVP_MD_CTX_free(ctx);
  EVP_PKEY_free(key);
  return ok;
}

// The device's own verifier, once the host library carries it; until then only OpenSSL.
inline bool device_verify(const std::string& pub, const std::string& message, const std::string& sig) {
#ifdef PUBLISH_TEST_DEVICE_VERIFY
  if (pub.size() != 32 || sig.size() != 64) return false;
  return ota::ed25519_verify(reinterpret_cast<const ota::u8*>(pub.data()),
                             reinterpret_cast<const ota::u8*>(message.data()), message.size(),
                             reinterpret_cast<const ota::u8*>(sig.data())) == 1;
#else
  return openssl_verify(pub, message, sig);
#endif
}

// Both verifiers must agree that the signature holds.
inline bool verifies(const std::string& pub, const std::string& message, const std::string& sig) {
  return openssl_verify(pub, message, sig) && device_verify(pub, message, sig);
}

// Signs with a PEM private key file, for tests that hand-edit a catalog and sign it again.
inline std::string openssl_sign(const std::string& key_path, const std::string& message) {
  std::string pem = get(key_path);
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

inline std::string hex(const std::string& bytes) {
  static const char digits[] = "0123456789abcdef";
  std::string out;
  for (unsigned char c : bytes) {
    out.push_back(digits[c >> 4]);
    out.push_back(digits[c & 15]);
  }
  return out;
}

inline std::string unhex(const std::string& text) {
  std::string out;
  for (std::size_t i = 0; i + 1 < text.size(); i += 2)
    out.push_back(static_cast<char>(std::stoi(text.substr(i, 2), nullptr, 16)));
  return out;
}

inline std::string sha256_hex(const std::string& data) {
  unsigned char digest[32];
  unsigned int len = 0;
  EVP_Digest(data.data(), data.size(), digest, &len, EVP_sha256(), nullptr);
  return hex(std::string(reinterpret_cast<char*>(digest), 32));
}

// Unpacks one gzip member with zlib; false when it is not a complete, valid member.
inline bool gunzip(const std::string& packed, std::string& out) {
  z_stream s{};
  if (inflateInit2(&s, 15 + 16) != Z_OK) return false;
  s.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(packed.data()));
  s.avail_in = static_cast<uInt>(packed.size());
  char chunk[16384];
  int rc = Z_OK;
  out.clear();
  while (rc == Z_OK) {
    s.next_out = reinterpret_cast<Bytef*>(chunk);
    s.avail_out = sizeof chunk;
    rc = inflate(&s, Z_NO_FLUSH);
    out.append(chunk, sizeof chunk - s.avail_out);
    if (rc == Z_BUF_ERROR) break;
  }
  inflateEnd(&s);
  return rc == Z_STREAM_END;
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

// A scratch directory with three key pairs and a spare key made by the tool itself.
class KeyedScratch : public Scratch {
 public:
  KeyedScratch() {
    for (const char* name : {"k0", "k1", "k2", "k3", "spare"}) publish({"keygen", "--out", (*this)(name)});
  }
  std::string key(const std::string& name) const { return (*this)(name + ".key"); }
  std::string pub(const std::string& name) const { return (*this)(name + ".pub"); }
};

}  // namespace publish_test
