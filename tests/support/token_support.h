#pragma once
// A SoftHSM2 token store of its own for each test: a configuration and a token directory
// in a scratch directory, named through SOFTHSM2_CONF, which ota-publish and softhsm2-util
// started by the test inherit. Tokens are made the way an operator makes them, with
// softhsm2-util; the keys in them are made and used by ota-publish.
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "run.h"

namespace token_test {

constexpr const char* kUserPin = "1234";
constexpr const char* kSoPin = "87654321";

// The SoftHSM2 module: OTA_TEST_SOFTHSM2_MODULE, else where Debian installs it.
inline std::string softhsm2_module() {
  if (const char* given = std::getenv("OTA_TEST_SOFTHSM2_MODULE")) return given;
  for (const char* path : {"/usr/lib/softhsm/libsofthsm2.so", "/usr/lib/x86_64-linux-gnu/softhsm/libsofthsm2.so"}) {
    struct stat st {};
    if (stat(path, &st) == 0) return path;
  }
  return "/usr/lib/softhsm/libsofthsm2.so";
}

class SoftTokens {
 public:
  // Makes the store in `dir` and points SOFTHSM2_CONF at it; OTA_PKCS11_PIN is cleared so
  // that the caller's environment never supplies a PIN by accident.
  explicit SoftTokens(const std::string& dir) : dir_(dir) {
    std::filesystem::create_directories(dir_ + "/tokens");
    std::ofstream(dir_ + "/softhsm2.conf") << "directories.tokendir = " << dir_ << "/tokens\n"
                                           << "objectstore.backend = file\nlog.level = ERROR\n";
    setenv("SOFTHSM2_CONF", (dir_ + "/softhsm2.conf").c_str(), 1);
    unsetenv("OTA_PKCS11_PIN");
  }
  ~SoftTokens() { unsetenv("SOFTHSM2_CONF"); }

  static bool available() {
    struct stat st {};
    return stat(softhsm2_module().c_str(), &st) == 0 && std::system("softhsm2-util --version >/dev/null 2>&1") == 0;
  }

  // A new token with the test PINs; false when softhsm2-util fails.
  bool init(const std::string& label, const std::string& pin = kUserPin) const {
    std::string command = "softhsm2-util --init-token --free --label " + shell_quote(label) + " --so-pin " + kSoPin +
                          " --pin " + shell_quote(pin) + " >/dev/null 2>&1";
    return std::system(command.c_str()) == 0;
  }

  // Puts the key pair of a PEM private key file into a token (how a key of another type,
  // or an existing key, gets there).
  bool import(const std::string& token, const std::string& pem, const std::string& label,
              const std::string& id_hex) const {
    std::string command = "softhsm2-util --import " + shell_quote(pem) + " --token " + shell_quote(token) + " --label " +
                          shell_quote(label) + " --id " + id_hex + " --pin " + kUserPin + " >/dev/null 2>&1";
    return std::system(command.c_str()) == 0;
  }

  // The URI of a key: path attributes as given, then the module and (unless the query says
  // otherwise) the test PIN.
  static std::string uri(const std::string& path, const std::string& query = std::string("pin-value=") + kUserPin) {
    return "pkcs11:" + path + "?module-path=" + softhsm2_module() + (query.empty() ? "" : "&" + query);
  }
  static std::string key(const std::string& token, const std::string& object) {
    return uri("token=" + token + ";object=" + object);
  }

  const std::string& dir() const { return dir_; }

 private:
  std::string dir_;
};

}  // namespace token_test
