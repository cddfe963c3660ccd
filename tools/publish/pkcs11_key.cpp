#include "pkcs11_key.h"

#include <dlfcn.h>
#include <openssl/rand.h>
#include <p11-kit/pkcs11.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <vector>

#include "pkcs11_uri.h"

namespace publish {

namespace {

// The CKA_ID keygen gives a pair when the URI names none: enough random bytes that two
// pairs never share one.
constexpr std::size_t kIdBytes = 16;
// Ed25519 as CKA_EC_PARAMS: the DER of the object identifier 1.3.101.112, or of the
// printable string "edwards25519" that older tokens use.
const Bytes kEd25519Oid = {0x06, 0x03, 0x2b, 0x65, 0x70};
const Bytes kEd448Oid = {0x06, 0x03, 0x2b, 0x65, 0x71};
const Bytes kEd25519Name = {0x13, 0x0c, 'e', 'd', 'w', 'a', 'r', 'd', 's', '2', '5', '5', '1', '9'};
const Bytes kEd448Name = {0x13, 0x0a, 'e', 'd', 'w', 'a', 'r', 'd', 's', '4', '4', '8'};
// CKK_EC_MONTGOMERY of PKCS#11 3.0, which older headers lack.
constexpr CK_KEY_TYPE kKeyTypeMontgomery = 0x41;

std::string rv_name(CK_RV rv) {
  static const std::map<CK_RV, const char*> kNames = {
      {CKR_CANCEL, "CKR_CANCEL"},
      {CKR_HOST_MEMORY, "CKR_HOST_MEMORY"},
      {CKR_SLOT_ID_INVALID, "CKR_SLOT_ID_INVALID"},
      {CKR_GENERAL_ERROR, "CKR_GENERAL_ERROR"},
      {CKR_FUNCTION_FAILED, "CKR_FUNCTION_FAILED"},
      {CKR_ARGUMENTS_BAD, "CKR_ARGUMENTS_BAD"},
      {CKR_ATTRIBUTE_TYPE_INVALID, "CKR_ATTRIBUTE_TYPE_INVALID"},
      {CKR_ATTRIBUTE_VALUE_INVALID, "CKR_ATTRIBUTE_VALUE_INVALID"},
      {CKR_DATA_LEN_RANGE, "CKR_DATA_LEN_RANGE"},
      {CKR_DEVICE_ERROR, "CKR_DEVICE_ERROR"},
      {CKR_DEVICE_MEMORY, "CKR_DEVICE_MEMORY"},
      {CKR_DEVICE_REMOVED, "CKR_DEVICE_REMOVED"},
      {CKR_FUNCTION_NOT_SUPPORTED, "CKR_FUNCTION_NOT_SUPPORTED"},
      {CKR_KEY_HANDLE_INVALID, "CKR_KEY_HANDLE_INVALID"},
      {CKR_KEY_TYPE_INCONSISTENT, "CKR_KEY_TYPE_INCONSISTENT"},
      {CKR_KEY_FUNCTION_NOT_PERMITTED, "CKR_KEY_FUNCTION_NOT_PERMITTED"},
      {CKR_MECHANISM_INVALID, "CKR_MECHANISM_INVALID"},
      {CKR_MECHANISM_PARAM_INVALID, "CKR_MECHANISM_PARAM_INVALID"},
      {CKR_OBJECT_HANDLE_INVALID, "CKR_OBJECT_HANDLE_INVALID"},
      {CKR_PIN_INCORRECT, "CKR_PIN_INCORRECT"},
      {CKR_PIN_INVALID, "CKR_PIN_INVALID"},
      {CKR_PIN_LEN_RANGE, "CKR_PIN_LEN_RANGE"},
      {CKR_PIN_EXPIRED, "CKR_PIN_EXPIRED"},
      {CKR_PIN_LOCKED, "CKR_PIN_LOCKED"},
      {CKR_SESSION_COUNT, "CKR_SESSION_COUNT"},
      {CKR_SESSION_HANDLE_INVALID, "CKR_SESSION_HANDLE_INVALID"},
      {CKR_SESSION_READ_ONLY, "CKR_SESSION_READ_ONLY"},
      {CKR_TEMPLATE_INCOMPLETE, "CKR_TEMPLATE_INCOMPLETE"},
      {CKR_TEMPLATE_INCONSISTENT, "CKR_TEMPLATE_INCONSISTENT"},
      {CKR_TOKEN_NOT_PRESENT, "CKR_TOKEN_NOT_PRESENT"},
      {CKR_TOKEN_NOT_RECOGNIZED, "CKR_TOKEN_NOT_RECOGNIZED"},
      {CKR_TOKEN_WRITE_PROTECTED, "CKR_TOKEN_WRITE_PROTECTED"},
      {CKR_USER_ALREADY_LOGGED_IN, "CKR_USER_ALREADY_LOGGED_IN"},
      {CKR_USER_NOT_LOGGED_IN, "CKR_USER_NOT_LOGGED_IN"},
      {CKR_USER_PIN_NOT_INITIALIZED, "CKR_USER_PIN_NOT_INITIALIZED"},
      {CKR_USER_TYPE_INVALID, "CKR_USER_TYPE_INVALID"},
      {CKR_BUFFER_TOO_SMALL, "CKR_BUFFER_TOO_SMALL"},
      {CKR_CRYPTOKI_NOT_INITIALIZED, "CKR_CRYPTOKI_NOT_INITIALIZED"},
      {CKR_CRYPTOKI_ALREADY_INITIALIZED, "CKR_CRYPTOKI_ALREADY_INITIALIZED"},
      {CKR_DOMAIN_PARAMS_INVALID, "CKR_DOMAIN_PARAMS_INVALID"},
      {CKR_CURVE_NOT_SUPPORTED, "CKR_CURVE_NOT_SUPPORTED"},
  };
  auto it = kNames.find(rv);
  if (it != kNames.end()) return it->second;
  char text[32];
  std::snprintf(text, sizeof text, "CKR 0x%lx", static_cast<unsigned long>(rv));
  return text;
}

// A blank-padded info field as text, for messages.
std::string field_text(const unsigned char* field, std::size_t n) {
  std::size_t end = n;
  while (end > 0 && (field[end - 1] == ' ' || field[end - 1] == '\0')) --end;
  return std::string(reinterpret_cast<const char*>(field), end);
}

// A URI value matches a field when it equals the field with its padding taken off; a value
// with trailing blanks of its own still has to match them.
bool field_matches(const unsigned char* field, std::size_t n, const std::string& value) {
  if (value.size() > n || std::memcmp(field, value.data(), value.size()) != 0) return false;
  for (std::size_t i = value.size(); i < n; ++i) {
    if (field[i] != ' ' && field[i] != '\0') return false;
  }
  return true;
}

std::string hex_of(const std::string& bytes) {
  return hex_lower(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
}

// One loaded module. It stays loaded until the process ends: unloading a module that has
// started threads or registered handlers of its own is not safe with every module.
struct Module {
  std::string path;
  CK_FUNCTION_LIST_PTR f = nullptr;
  bool finalize = false;
  ~Module() {
    if (finalize) f->C_Finalize(nullptr);
  }
};

std::shared_ptr<Module> load_module(const Pkcs11Uri& uri) {
  std::optional<std::string> path = uri.get("module-path");
  if (!path) {
    if (uri.get("module-name")) {
      throw Error(
          "the PKCS#11 URI names a module-name but no module-path; ota-publish loads the module library "
          "that module-path names (add &module-path=/path/to/module.so)");
    }
    throw Error(
        "the PKCS#11 URI names no module; add ?module-path=/path/to/module.so (for SoftHSM2: "
        "/usr/lib/softhsm/libsofthsm2.so)");
  }
  if (path->empty() || (*path)[0] != '/') {
    throw Error("PKCS#11 module-path " + shown(*path) + " is not an absolute path");
  }
  static std::map<std::string, std::weak_ptr<Module>> loaded;
  if (auto existing = loaded[*path].lock()) return existing;

  struct stat st {};
  if (stat(path->c_str(), &st) != 0) {
    throw Error("cannot load the PKCS#11 module " + shown(*path) + ": " + std::strerror(errno));
  }
  if (!S_ISREG(st.st_mode)) throw Error("cannot load the PKCS#11 module " + shown(*path) + ": not a regular file");
  void* handle = dlopen(path->c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) {
    std::string reason = dlerror();
    // dlerror starts with the path itself; the message names it once.
    if (reason.rfind(*path + ": ", 0) == 0) reason.erase(0, path->size() + 2);
    throw Error("cannot load the PKCS#11 module " + shown(*path) + ": " + reason);
  }
  auto get_list = reinterpret_cast<CK_C_GetFunctionList>(dlsym(handle, "C_GetFunctionList"));
  if (get_list == nullptr) {
    dlclose(handle);
    throw Error("cannot load the PKCS#11 module " + shown(*path) +
                ": it has no C_GetFunctionList, so it is not a PKCS#11 module");
  }
  auto module = std::make_shared<Module>();
  module->path = *path;
  CK_RV rv = get_list(&module->f);
  if (rv != CKR_OK || module->f == nullptr) {
    throw Error("the PKCS#11 module " + shown(*path) + " gave no function list: " + rv_name(rv));
  }
  if (module->f->version.major < 2) {
    throw Error("the PKCS#11 module " + shown(*path) + " speaks PKCS#11 version " +
                std::to_string(module->f->version.major) + "; Ed25519 needs a later one");
  }
  rv = module->f->C_Initialize(nullptr);
  if (rv != CKR_OK && rv != CKR_CRYPTOKI_ALREADY_INITIALIZED) {
    bool softhsm = path->find("softhsm") != std::string::npos;
    throw Error("the PKCS#11 module " + shown(*path) + " did not start: " + rv_name(rv) +
                (softhsm ? " (does SOFTHSM2_CONF name a readable configuration?)" : ""));
  }
  module->finalize = rv == CKR_OK;
  loaded[*path] = module;
  return module;
}

// Attribute templates own their values, which PKCS#11 takes by pointer.
class Template {
 public:
  void add(CK_ATTRIBUTE_TYPE type, const void* data, std::size_t n) {
    const auto* bytes = static_cast<const unsigned char*>(data);
    values_.emplace_back(bytes, bytes + n);
    attributes_.push_back({type, values_.back().data(), static_cast<CK_ULONG>(n)});
  }
  void add(CK_ATTRIBUTE_TYPE type, const std::string& text) { add(type, text.data(), text.size()); }
  void add(CK_ATTRIBUTE_TYPE type, const Bytes& bytes) { add(type, bytes.data(), bytes.size()); }
  void add_bool(CK_ATTRIBUTE_TYPE type, bool value) {
    CK_BBOOL b = value ? CK_TRUE : CK_FALSE;
    add(type, &b, sizeof b);
  }
  void add_ulong(CK_ATTRIBUTE_TYPE type, CK_ULONG value) { add(type, &value, sizeof value); }
  CK_ATTRIBUTE* data() { return attributes_.data(); }
  CK_ULONG size() const { return static_cast<CK_ULONG>(attributes_.size()); }

 private:
  std::deque<std::vector<unsigned char>> values_;
  std::vector<CK_ATTRIBUTE> attributes_;
};

std::string key_type_name(CK_KEY_TYPE type) {
  switch (type) {
    case CKK_RSA:
      return "RSA";
    case CKK_DSA:
      return "DSA";
    case CKK_DH:
      return "Diffie-Hellman";
    case CKK_EC:
      return "ECDSA";
    case kKeyTypeMontgomery:
      return "X25519/X448";
    case CKK_GENERIC_SECRET:
      return "secret";
    case CKK_AES:
      return "AES";
    default: {
      char text[40];
      std::snprintf(text, sizeof text, "key type 0x%lx", static_cast<unsigned long>(type));
      return text;
    }
  }
}

// The PIN source of a URI. Only files are read: "file:PATH", "file:///PATH" or a plain
// path. A program ("|...") or any other scheme is refused, since nothing is ever run or
// asked to obtain a PIN.
std::string read_pin_source(const std::string& source) {
  std::string path = source;
  if (source.rfind("file:", 0) == 0) {
    path = source.substr(5);
    if (path.rfind("//", 0) == 0) {
      std::size_t slash = path.find('/', 2);
      std::string host = path.substr(2, slash == std::string::npos ? std::string::npos : slash - 2);
      if (slash == std::string::npos || (!host.empty() && host != "localhost")) {
        throw Error("PKCS#11 pin-source " + shown(source) + " names a file on another host; give file:PATH");
      }
      path = path.substr(slash);
    }
  } else {
    std::size_t colon = source.find(':');
    std::size_t slash = source.find('/');
    if (!source.empty() && source[0] == '|') {
      throw Error("PKCS#11 pin-source " + shown(source) +
                  " names a program; ota-publish reads a PIN only from a file "
                  "(pin-source=file:PATH) and never runs anything for it");
    }
    if (colon != std::string::npos && (slash == std::string::npos || colon < slash)) {
      throw Error("PKCS#11 pin-source " + shown(source) +
                  " is not a file: URI; ota-publish reads a PIN only from a "
                  "file (pin-source=file:PATH)");
    }
  }
  if (path.empty()) throw Error("PKCS#11 pin-source " + shown(source) + " names no file");
  std::string pin = as_string(read_file(path, "PIN file"));
  while (!pin.empty() && (pin.back() == '\n' || pin.back() == '\r')) pin.pop_back();
  if (pin.empty()) throw Error("PIN file " + shown(path) + " is empty");
  return pin;
}

// The PIN for a token: pin-value, pin-source, then OTA_PKCS11_PIN; none is none.
std::optional<std::string> pin_for(const Pkcs11Uri& uri) {
  if (auto value = uri.get("pin-value")) return value;
  if (auto source = uri.get("pin-source")) return read_pin_source(*source);
  if (const char* env = std::getenv("OTA_PKCS11_PIN")) {
    if (*env == '\0') throw Error("OTA_PKCS11_PIN is set but empty");
    return std::string(env);
  }
  return std::nullopt;
}

}  // namespace

struct TokenKey::Impl {
  std::shared_ptr<Module> module;
  CK_FUNCTION_LIST_PTR f = nullptr;  // module->f, for short

  // Loads the module the URI names, finds its token and opens a session there.
  static std::unique_ptr<Impl> connect(const Pkcs11Uri& uri, bool read_write) {
    auto impl = std::make_unique<Impl>();
    impl->module = load_module(uri);
    impl->f = impl->module->f;
    impl->find_token(uri);
    impl->open_session(uri, read_write);
    return impl;
  }

  CK_SLOT_ID slot = 0;
  std::string token_label;
  CK_SESSION_HANDLE session = CK_INVALID_HANDLE;
  bool logged_in = false;
  CK_OBJECT_HANDLE private_key = CK_INVALID_HANDLE;
  CK_OBJECT_HANDLE public_object = CK_INVALID_HANDLE;
  std::string label;
  std::string id;
  PublicKey public_key{};
  bool made_here = false;  // only a pair keygen has just made may be removed again

  ~Impl() {
    if (session != CK_INVALID_HANDLE) {
      if (logged_in) f->C_Logout(session);
      f->C_CloseSession(session);
    }
  }

  std::string token_words() const { return "token " + shown(token_label); }

  // The key as messages name it, with its token unless the message names the token itself.
  std::string key_words(bool with_token = true) const {
    std::string text = label.empty() ? "the key" : "key " + shown(label);
    if (!id.empty()) text += " (id " + hex_of(id) + ")";
    return with_token ? text + " in " + token_words() : text;
  }

  void check(CK_RV rv, const std::string& doing) const {
    if (rv != CKR_OK) throw Error("cannot " + doing + " in " + token_words() + ": " + rv_name(rv));
  }

  void find_token(const Pkcs11Uri& uri) {
    CK_INFO info{};
    CK_RV rv = f->C_GetInfo(&info);
    if (rv != CKR_OK) throw Error("the PKCS#11 module " + shown(module->path) + " gave no info: " + rv_name(rv));
    std::string library = field_text(info.libraryDescription, sizeof info.libraryDescription);
    auto library_mismatch = [&](const std::string& what, const std::string& is) {
      throw Error("the PKCS#11 module " + shown(module->path) + " is not the library the URI names: its " + what +
                  " is " + shown(is));
    };
    if (auto want = uri.get("library-manufacturer");
        want && !field_matches(info.manufacturerID, sizeof info.manufacturerID, *want)) {
      library_mismatch("manufacturer", field_text(info.manufacturerID, sizeof info.manufacturerID));
    }
    if (auto want = uri.get("library-description");
        want && !field_matches(info.libraryDescription, sizeof info.libraryDescription, *want)) {
      library_mismatch("description", library);
    }
    if (auto want = uri.get("library-version")) {
      std::size_t dot = want->find('.');
      unsigned long major = std::stoul(want->substr(0, dot));
      unsigned long minor = dot == std::string::npos ? 0 : std::stoul(want->substr(dot + 1));
      if (major != info.libraryVersion.major || minor != info.libraryVersion.minor) {
        library_mismatch("version",
                         std::to_string(info.libraryVersion.major) + "." + std::to_string(info.libraryVersion.minor));
      }
    }

    CK_ULONG count = 0;
    rv = f->C_GetSlotList(CK_TRUE, nullptr, &count);
    std::vector<CK_SLOT_ID> slots(count);
    if (rv == CKR_OK && count > 0) rv = f->C_GetSlotList(CK_TRUE, slots.data(), &count);
    if (rv != CKR_OK) {
      throw Error("the PKCS#11 module " + shown(module->path) + " cannot list its slots: " + rv_name(rv));
    }
    slots.resize(count);

    std::optional<CK_SLOT_ID> want_slot;
    if (auto id = uri.get("slot-id")) want_slot = std::stoul(*id);
    std::vector<std::string> present;
    std::vector<std::pair<CK_SLOT_ID, std::string>> matching;
    for (CK_SLOT_ID candidate : slots) {
      CK_TOKEN_INFO token{};
      CK_SLOT_INFO slot_info{};
      if (f->C_GetTokenInfo(candidate, &token) != CKR_OK || !(token.flags & CKF_TOKEN_INITIALIZED)) continue;
      if (f->C_GetSlotInfo(candidate, &slot_info) != CKR_OK) continue;
      std::string token_name = field_text(token.label, sizeof token.label);
      present.push_back(shown(token_name));
      auto mismatch = [&](const char* name, const unsigned char* field, std::size_t n) {
        auto want = uri.get(name);
        return want && !field_matches(field, n, *want);
      };
      if (want_slot && *want_slot != candidate) continue;
      if (mismatch("token", token.label, sizeof token.label) ||
          mismatch("manufacturer", token.manufacturerID, sizeof token.manufacturerID) ||
          mismatch("model", token.model, sizeof token.model) ||
          mismatch("serial", token.serialNumber, sizeof token.serialNumber) ||
          mismatch("slot-description", slot_info.slotDescription, sizeof slot_info.slotDescription) ||
          mismatch("slot-manufacturer", slot_info.manufacturerID, sizeof slot_info.manufacturerID)) {
        continue;
      }
      matching.push_back({candidate, token_name});
    }
    std::string listing;
    for (const std::string& name : present) listing += (listing.empty() ? "" : ", ") + name;
    if (matching.empty()) {
      // The usual case, a token label alone, reads plainly; otherwise every attribute that
      // chooses a token is named.
      std::string wanted;
      for (const char* name :
           {"token", "manufacturer", "model", "serial", "slot-id", "slot-description", "slot-manufacturer"}) {
        if (auto value = uri.get(name)) wanted += std::string(wanted.empty() ? "" : ", ") + name + " " + shown(*value);
      }
      std::string there =
          present.empty() ? std::string(" (it has no initialised token)") : " (tokens there: " + listing + ")";
      if (auto token = uri.get("token"); token && wanted == "token " + shown(*token)) {
        throw Error("no token " + shown(*token) + " in the PKCS#11 module " + shown(module->path) + there);
      }
      throw Error("no token in the PKCS#11 module " + shown(module->path) + " matches " +
                  (wanted.empty() ? std::string("the URI") : wanted) + there);
    }
    if (matching.size() > 1) {
      throw Error(std::to_string(matching.size()) + " tokens of the PKCS#11 module " + shown(module->path) +
                  " match the URI (" + listing + "); name one with token=, serial= or slot-id=");
    }
    slot = matching.front().first;
    token_label = matching.front().second;
  }

  void open_session(const Pkcs11Uri& uri, bool read_write) {
    CK_FLAGS flags = CKF_SERIAL_SESSION | (read_write ? CKF_RW_SESSION : 0);
    CK_RV rv = f->C_OpenSession(slot, flags, nullptr, nullptr, &session);
    if (rv != CKR_OK) {
      session = CK_INVALID_HANDLE;
      if (rv == CKR_TOKEN_WRITE_PROTECTED) throw Error(token_words() + " is write-protected; no key can be made in it");
      throw Error("cannot open a session with " + token_words() + ": " + rv_name(rv));
    }
    CK_TOKEN_INFO token{};
    check(f->C_GetTokenInfo(slot, &token), "read the token's info");
    std::optional<std::string> pin = pin_for(uri);
    if (!pin) {
      if (!(token.flags & CKF_LOGIN_REQUIRED)) return;
      throw Error("no PIN for " + token_words() +
                  ": the PKCS#11 URI has no pin-value or pin-source and OTA_PKCS11_PIN is not set (ota-publish never "
                  "asks for a PIN)");
    }
    rv = f->C_Login(session, CKU_USER, reinterpret_cast<CK_UTF8CHAR_PTR>(pin->data()),
                    static_cast<CK_ULONG>(pin->size()));
    if (rv == CKR_USER_ALREADY_LOGGED_IN) return;
    switch (rv) {
      case CKR_OK:
        logged_in = true;
        return;
      case CKR_PIN_INCORRECT:
      case CKR_PIN_INVALID:
      case CKR_PIN_LEN_RANGE:
        throw Error(token_words() + " refused the PIN (" + rv_name(rv) +
                    "); tokens lock the key after a few wrong PINs");
      case CKR_PIN_LOCKED:
        throw Error("the PIN of " + token_words() + " is locked (CKR_PIN_LOCKED); the security officer must unlock it");
      case CKR_USER_PIN_NOT_INITIALIZED:
        throw Error(token_words() + " has no user PIN yet (CKR_USER_PIN_NOT_INITIALIZED)");
      default:
        throw Error("cannot log in to " + token_words() + ": " + rv_name(rv));
    }
  }

  std::vector<CK_OBJECT_HANDLE> find(Template& t) const {
    check(f->C_FindObjectsInit(session, t.data(), t.size()), "search for keys");
    std::vector<CK_OBJECT_HANDLE> found;
    CK_OBJECT_HANDLE batch[16];
    for (;;) {
      CK_ULONG n = 0;
      CK_RV rv = f->C_FindObjects(session, batch, 16, &n);
      if (rv != CKR_OK) {
        f->C_FindObjectsFinal(session);
        check(rv, "search for keys");
      }
      if (n == 0) break;
      found.insert(found.end(), batch, batch + n);
    }
    check(f->C_FindObjectsFinal(session), "search for keys");
    return found;
  }

  // An attribute's bytes, or nothing when the object does not have it or keeps it secret.
  std::optional<Bytes> attribute(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) const {
    CK_ATTRIBUTE a{type, nullptr, 0};
    if (f->C_GetAttributeValue(session, object, &a, 1) != CKR_OK || a.ulValueLen == CK_UNAVAILABLE_INFORMATION) {
      return std::nullopt;
    }
    Bytes value(a.ulValueLen);
    a.pValue = value.data();
    if (f->C_GetAttributeValue(session, object, &a, 1) != CKR_OK) return std::nullopt;
    value.resize(a.ulValueLen);
    return value;
  }

  std::optional<CK_ULONG> ulong_attribute(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) const {
    std::optional<Bytes> value = attribute(object, type);
    if (!value || value->size() != sizeof(CK_ULONG)) return std::nullopt;
    CK_ULONG out = 0;
    std::memcpy(&out, value->data(), sizeof out);
    return out;
  }

  std::optional<bool> bool_attribute(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) const {
    std::optional<Bytes> value = attribute(object, type);
    if (!value || value->size() != sizeof(CK_BBOOL)) return std::nullopt;
    return (*value)[0] != CK_FALSE;
  }

  std::string text_attribute(CK_OBJECT_HANDLE object, CK_ATTRIBUTE_TYPE type) const {
    std::optional<Bytes> value = attribute(object, type);
    return value ? as_string(*value) : std::string();
  }

  void require_mechanism(CK_MECHANISM_TYPE mechanism, CK_FLAGS needed, const char* name, const char* use) const {
    CK_MECHANISM_INFO info{};
    CK_RV rv = f->C_GetMechanismInfo(slot, mechanism, &info);
    if (rv == CKR_MECHANISM_INVALID || (rv == CKR_OK && !(info.flags & needed))) {
      throw Error(token_words() + " has no " + name + " mechanism; it cannot " + use);
    }
    check(rv, std::string("ask for the ") + name + " mechanism");
  }

  // Refuses every key but an Ed25519 one, naming what it is.
  void require_ed25519(CK_OBJECT_HANDLE object) const {
    std::optional<CK_ULONG> type = ulong_attribute(object, CKA_KEY_TYPE);
    if (!type) throw Error(key_words() + " has no key type the token will tell");
    if (*type != CKK_EC_EDWARDS) {
      throw Error(key_words() + " is " + with_article(key_type_name(*type)) + " key; devices check Ed25519 signatures only");
    }
    std::optional<Bytes> params = attribute(object, CKA_EC_PARAMS);
    if (params && (*params == kEd448Oid || *params == kEd448Name)) {
      throw Error(key_words() + " is an Ed448 key; devices check Ed25519 signatures only");
    }
    if (params && *params != kEd25519Oid && *params != kEd25519Name) {
      throw Error(key_words() + " is an Edwards key of another curve; devices check Ed25519 signatures only");
    }
  }

  // CKA_EC_POINT of an Edwards key: the 32 raw bytes, or as tokens of the older PKCS#11
  // profiles give it, wrapped in a DER octet string.
  static std::optional<PublicKey> point_of(const Bytes& point) {
    PublicKey key{};
    if (point.size() == kPublicKeyBytes) {
      std::copy(point.begin(), point.end(), key.begin());
      return key;
    }
    if (point.size() == kPublicKeyBytes + 2 && point[0] == 0x04 && point[1] == kPublicKeyBytes) {
      std::copy(point.begin() + 2, point.end(), key.begin());
      return key;
    }
    return std::nullopt;
  }

  // The public half from the public key object beside the private one: the same CKA_ID,
  // or, for a key without an id, the same label.
  void read_public_key() {
    Template t;
    t.add_ulong(CKA_CLASS, CKO_PUBLIC_KEY);
    t.add_ulong(CKA_KEY_TYPE, CKK_EC_EDWARDS);
    if (!id.empty()) {
      t.add(CKA_ID, id);
    } else if (!label.empty()) {
      t.add(CKA_LABEL, label);
    } else {
      throw Error(key_words() + " has neither an id nor a label, so its public key object cannot be told");
    }
    std::set<PublicKey> keys;
    for (CK_OBJECT_HANDLE object : find(t)) {
      std::optional<Bytes> point = attribute(object, CKA_EC_POINT);
      std::optional<PublicKey> key = point ? point_of(*point) : std::nullopt;
      if (!key) throw Error("the public key object of " + key_words() + " holds no 32-byte Ed25519 point");
      keys.insert(*key);
      public_object = object;
    }
    if (keys.empty()) {
      throw Error(token_words() + " holds no Ed25519 public key beside " + key_words(false) + " (same " +
                  (id.empty() ? "label" : "id") + "); ota-publish needs it to check what it signs");
    }
    if (keys.size() > 1) {
      throw Error(token_words() + " holds " + std::to_string(keys.size()) + " different public keys for " +
                  key_words() + "; give the pair an id of its own");
    }
    public_key = *keys.begin();
  }

  Signature sign(const std::uint8_t* message, std::size_t length) const {
    CK_MECHANISM mechanism{CKM_EDDSA, nullptr, 0};
    CK_RV rv = f->C_SignInit(session, &mechanism, private_key);
    if (rv == CKR_KEY_FUNCTION_NOT_PERMITTED) throw Error(key_words() + " may not sign (its CKA_SIGN is false)");
    check(rv, "start an Ed25519 signature with " + key_words());
    Signature sig{};
    CK_ULONG sig_len = sig.size();
    rv = f->C_Sign(session, const_cast<CK_BYTE_PTR>(message), static_cast<CK_ULONG>(length), sig.data(), &sig_len);
    check(rv, "sign with " + key_words());
    if (sig_len != sig.size()) {
      throw Error(token_words() + " made a signature of " + std::to_string(sig_len) + " bytes; Ed25519 has 64");
    }
    if (!verify_signature(public_key, message, length, sig.data())) {
      throw Error("the signature " + token_words() + " made does not verify with the public key beside " + key_words() +
                  "; the two objects do not belong together");
    }
    return sig;
  }
};

TokenKey::TokenKey(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
TokenKey::~TokenKey() = default;

const PublicKey& TokenKey::public_key() const { return impl_->public_key; }

Signature TokenKey::sign(const std::uint8_t* message, std::size_t length) const { return impl_->sign(message, length); }

std::string TokenKey::description() const { return impl_->key_words(); }

std::shared_ptr<TokenKey> TokenKey::open(const std::string& text) {
  Pkcs11Uri uri = parse_pkcs11_uri(text);
  if (auto type = uri.get("type"); type && *type != "private") {
    throw Error("the PKCS#11 URI names type=" + *type + "; signing needs the private key (type=private)");
  }
  std::unique_ptr<Impl> impl = Impl::connect(uri, false);

  Template t;
  t.add_ulong(CKA_CLASS, CKO_PRIVATE_KEY);
  if (auto object = uri.get("object")) t.add(CKA_LABEL, *object);
  if (auto id = uri.get("id")) t.add(CKA_ID, *id);
  std::vector<CK_OBJECT_HANDLE> found = impl->find(t);
  if (found.size() != 1) {
    Template all;
    all.add_ulong(CKA_CLASS, CKO_PRIVATE_KEY);
    std::string listing;
    for (CK_OBJECT_HANDLE object : impl->find(all)) {
      listing += (listing.empty() ? "" : ", ") + shown(impl->text_attribute(object, CKA_LABEL));
    }
    std::string wanted = uri.get("object") ? "private key " + shown(*uri.get("object"))
                         : uri.get("id")   ? "private key with id " + hex_of(*uri.get("id"))
                                           : "private key";
    if (found.empty()) {
      throw Error(
          "no " + wanted + " in " + impl->token_words() +
          (listing.empty() ? std::string(" (it holds no private key)") : " (private keys there: " + listing + ")"));
    }
    throw Error(std::to_string(found.size()) + " private keys in " + impl->token_words() + " match the URI (" +
                listing + "); name one with object= or id=");
  }
  impl->private_key = found.front();
  impl->label = impl->text_attribute(impl->private_key, CKA_LABEL);
  impl->id = impl->text_attribute(impl->private_key, CKA_ID);
  impl->require_ed25519(impl->private_key);
  if (impl->bool_attribute(impl->private_key, CKA_SIGN) == false) {
    throw Error(impl->key_words() + " may not sign (its CKA_SIGN is false)");
  }
  impl->require_mechanism(CKM_EDDSA, CKF_SIGN, "Ed25519 signing (CKM_EDDSA)", "sign with Ed25519");
  impl->read_public_key();
  return std::shared_ptr<TokenKey>(new TokenKey(std::move(impl)));
}

std::shared_ptr<TokenKey> TokenKey::generate(const std::string& text) {
  Pkcs11Uri uri = parse_pkcs11_uri(text);
  std::optional<std::string> object = uri.get("object");
  if (!object || object->empty()) {
    throw Error("the PKCS#11 URI for a new key names no object; add object=NAME, the label the key pair gets");
  }
  if (auto type = uri.get("type"); type && *type != "private" && *type != "public") {
    throw Error("the PKCS#11 URI names type=" + *type + "; keygen makes a public and a private key");
  }
  std::unique_ptr<Impl> impl = Impl::connect(uri, true);
  impl->label = *object;
  impl->require_mechanism(CKM_EC_EDWARDS_KEY_PAIR_GEN, CKF_GENERATE_KEY_PAIR,
                          "Ed25519 key generation (CKM_EC_EDWARDS_KEY_PAIR_GEN)", "make an Ed25519 key");
  impl->require_mechanism(CKM_EDDSA, CKF_SIGN, "Ed25519 signing (CKM_EDDSA)", "sign with Ed25519");

  // A key is never replaced, and a second object of the same name would make the URI
  // ambiguous for every later signature.
  Template same_label;
  same_label.add(CKA_LABEL, *object);
  if (!impl->find(same_label).empty()) {
    throw Error(impl->token_words() + " already holds an object labelled " + shown(*object) +
                "; a key is never replaced (choose another object=)");
  }
  if (auto id = uri.get("id")) {
    if (id->empty()) throw Error("the PKCS#11 URI gives an empty id; leave id= out to have one made");
    Template same_id;
    same_id.add(CKA_ID, *id);
    if (!impl->find(same_id).empty()) {
      throw Error(impl->token_words() + " already holds an object with id " + hex_of(*id) +
                  "; a key is never replaced (choose another id=)");
    }
    impl->id = *id;
  } else {
    std::string fresh(kIdBytes, '\0');
    if (RAND_bytes(reinterpret_cast<unsigned char*>(fresh.data()), static_cast<int>(fresh.size())) != 1) {
      throw Error("libcrypto could not make a random key id");
    }
    impl->id = fresh;
  }

  CK_MECHANISM mechanism{CKM_EC_EDWARDS_KEY_PAIR_GEN, nullptr, 0};
  CK_RV rv = CKR_GENERAL_ERROR;
  for (const Bytes* params : {&kEd25519Oid, &kEd25519Name}) {
    Template pub;
    pub.add_ulong(CKA_CLASS, CKO_PUBLIC_KEY);
    pub.add_ulong(CKA_KEY_TYPE, CKK_EC_EDWARDS);
    pub.add_bool(CKA_TOKEN, true);
    pub.add_bool(CKA_PRIVATE, false);
    pub.add_bool(CKA_VERIFY, true);
    pub.add(CKA_EC_PARAMS, *params);
    pub.add(CKA_LABEL, impl->label);
    pub.add(CKA_ID, impl->id);
    Template priv;
    priv.add_ulong(CKA_CLASS, CKO_PRIVATE_KEY);
    priv.add_ulong(CKA_KEY_TYPE, CKK_EC_EDWARDS);
    priv.add_bool(CKA_TOKEN, true);
    priv.add_bool(CKA_PRIVATE, true);
    priv.add_bool(CKA_SENSITIVE, true);
    priv.add_bool(CKA_EXTRACTABLE, false);
    priv.add_bool(CKA_SIGN, true);
    priv.add(CKA_LABEL, impl->label);
    priv.add(CKA_ID, impl->id);
    rv = impl->f->C_GenerateKeyPair(impl->session, &mechanism, pub.data(), pub.size(), priv.data(), priv.size(),
                                    &impl->public_object, &impl->private_key);
    // Tokens name the curve either way; one that does not know the first form may know the
    // second.
    if (rv != CKR_ATTRIBUTE_VALUE_INVALID && rv != CKR_CURVE_NOT_SUPPORTED && rv != CKR_DOMAIN_PARAMS_INVALID) break;
  }
  impl->check(rv, "make an Ed25519 key pair");
  impl->made_here = true;

  std::shared_ptr<TokenKey> key(new TokenKey(std::move(impl)));
  try {
    Impl& k = *key->impl_;
    if (k.bool_attribute(k.private_key, CKA_EXTRACTABLE) != false ||
        k.bool_attribute(k.private_key, CKA_SENSITIVE) != true) {
      throw Error(k.token_words() + " made the private key extractable or not sensitive; the pair was removed");
    }
    std::optional<Bytes> point = k.attribute(k.public_object, CKA_EC_POINT);
    std::optional<PublicKey> pub = point ? Impl::point_of(*point) : std::nullopt;
    if (!pub) throw Error(k.token_words() + " gave no 32-byte Ed25519 public key for the new pair; it was removed");
    k.public_key = *pub;
    // One signature through the token proves the pair works before anyone trusts it.
    static const char kProbe[] = "ota-publish keygen";
    k.sign(reinterpret_cast<const std::uint8_t*>(kProbe), sizeof kProbe - 1);
  } catch (...) {
    key->destroy();
    throw;
  }
  return key;
}

void TokenKey::destroy() {
  Impl& k = *impl_;
  if (!k.made_here) return;
  if (k.private_key != CK_INVALID_HANDLE) k.f->C_DestroyObject(k.session, k.private_key);
  if (k.public_object != CK_INVALID_HANDLE) k.f->C_DestroyObject(k.session, k.public_object);
  k.private_key = CK_INVALID_HANDLE;
  k.public_object = CK_INVALID_HANDLE;
}

}  // namespace publish
