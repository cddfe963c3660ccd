#include "pkcs11_uri.h"

#include <set>
#include <vector>

#include "util.h"

namespace publish {

namespace {

const std::set<std::string> kPathAttributes = {
    "token",           "manufacturer", "serial", "model", "library-manufacturer", "library-description",
    "library-version", "object",       "type",   "id",    "slot-description",     "slot-manufacturer",
    "slot-id"};
const std::set<std::string> kQueryAttributes = {"pin-source", "pin-value", "module-name", "module-path"};

bool is_unreserved(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
         c == '_' || c == '~';
}

// The characters a value may hold unescaped: "&" separates query attributes and may stand
// in the path; "/", "?" and "|" may stand in the query (a module path is full of "/").
bool allowed_unescaped(char c, bool in_query) {
  if (is_unreserved(c)) return true;
  static const std::string_view kBoth = ":[]@!$'()*+,=";
  if (kBoth.find(c) != std::string_view::npos) return true;
  return in_query ? (c == '/' || c == '?' || c == '|') : c == '&';
}

std::string decode_value(std::string_view value, const std::string& name, bool in_query) {
  std::string out;
  for (std::size_t i = 0; i < value.size(); ++i) {
    char c = value[i];
    if (c == '%') {
      std::uint8_t byte = 0;
      if (!hex_decode(value.substr(i + 1, 2), &byte, 1)) {
        throw Error("PKCS#11 URI attribute " + name +
                    " has a broken percent escape (\"%\" must be followed by two hex digits)");
      }
      out.push_back(static_cast<char>(byte));
      i += 2;
      continue;
    }
    if (!allowed_unescaped(c, in_query)) {
      static const char kHex[] = "0123456789ABCDEF";
      unsigned char byte = static_cast<unsigned char>(c);
      std::string escape = {'%', kHex[byte >> 4], kHex[byte & 15]};
      throw Error("PKCS#11 URI attribute " + name + " holds the character " + shown(std::string(1, c)) +
                  ", which a URI writes percent-encoded as " + escape);
    }
    out.push_back(c);
  }
  return out;
}

std::vector<std::string_view> split(std::string_view text, char separator) {
  std::vector<std::string_view> parts;
  std::size_t start = 0;
  for (;;) {
    std::size_t at = text.find(separator, start);
    parts.push_back(text.substr(start, at == std::string_view::npos ? std::string_view::npos : at - start));
    if (at == std::string_view::npos) return parts;
    start = at + 1;
  }
}

void check_value(const std::string& name, const std::string& value) {
  if (name == "type") {
    static const std::set<std::string> kTypes = {"public", "private", "cert", "secret-key", "data"};
    if (kTypes.count(value) == 0) {
      throw Error("PKCS#11 URI type " + shown(value) + " is not one of public, private, cert, secret-key, data");
    }
  } else if (name == "slot-id") {
    // A slot id is a CK_ULONG; twenty digits would not fit one.
    if (!is_plain_number(value) || value.size() > 19) {
      throw Error("PKCS#11 URI slot-id " + shown(value) + " is not a decimal number");
    }
  } else if (name == "library-version") {
    // Each part is one byte of a CK_VERSION.
    auto part_ok = [](std::string_view part) {
      return is_plain_number(part) && part.size() <= 3 && std::stoi(std::string(part)) <= 255;
    };
    std::size_t dot = value.find('.');
    bool ok = dot == std::string::npos
                  ? part_ok(value)
                  : part_ok(std::string_view(value).substr(0, dot)) && part_ok(std::string_view(value).substr(dot + 1));
    if (!ok) throw Error("PKCS#11 URI library-version " + shown(value) + " is not MAJOR or MAJOR.MINOR");
  }
}

void read_attributes(std::string_view part, bool in_query, std::map<std::string, std::string>& into) {
  const std::set<std::string>& known = in_query ? kQueryAttributes : kPathAttributes;
  const char* where = in_query ? "query" : "path";
  for (std::string_view attribute : split(part, in_query ? '&' : ';')) {
    if (attribute.empty()) {
      throw Error(std::string("PKCS#11 URI has an empty attribute in its ") + where + " (a doubled \"" +
                  (in_query ? "&" : ";") + "\" or one at the end)");
    }
    std::size_t eq = attribute.find('=');
    if (eq == std::string_view::npos) {
      throw Error("PKCS#11 URI attribute " + shown(attribute) + " has no \"=\" and value");
    }
    std::string name(attribute.substr(0, eq));
    if (known.count(name) == 0) {
      bool other_part = (in_query ? kPathAttributes : kQueryAttributes).count(name) != 0;
      throw Error("PKCS#11 URI attribute " + shown(name) +
                  (other_part
                       ? std::string(" belongs in the ") + (in_query ? "path (before \"?\")" : "query (after \"?\")")
                       : std::string(" is not one ota-publish knows")));
    }
    if (into.count(name) != 0) throw Error("PKCS#11 URI attribute " + name + " is given twice");
    std::string value = decode_value(attribute.substr(eq + 1), name, in_query);
    check_value(name, value);
    into[name] = value;
  }
}

}  // namespace

std::optional<std::string> Pkcs11Uri::get(const std::string& name) const {
  auto it = path.find(name);
  if (it != path.end()) return it->second;
  it = query.find(name);
  if (it != query.end()) return it->second;
  return std::nullopt;
}

bool is_pkcs11_uri(std::string_view text) {
  static const std::string_view kScheme = "pkcs11:";
  if (text.size() < kScheme.size()) return false;
  for (std::size_t i = 0; i < kScheme.size(); ++i) {
    char c = text[i];
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    if (c != kScheme[i]) return false;
  }
  return true;
}

Pkcs11Uri parse_pkcs11_uri(std::string_view text) {
  if (!is_pkcs11_uri(text)) throw Error("not a PKCS#11 URI (it must begin with \"pkcs11:\")");
  std::string_view rest = text.substr(7);
  if (rest.find('#') != std::string_view::npos) throw Error("a PKCS#11 URI has no fragment (\"#\")");
  Pkcs11Uri uri;
  std::size_t question = rest.find('?');
  std::string_view path = rest.substr(0, question);
  if (!path.empty()) read_attributes(path, false, uri.path);
  if (question != std::string_view::npos) {
    std::string_view query = rest.substr(question + 1);
    if (query.empty()) throw Error("PKCS#11 URI has a \"?\" with no query attribute after it");
    read_attributes(query, true, uri.query);
  }
  if (uri.query.count("pin-value") != 0 && uri.query.count("pin-source") != 0) {
    throw Error("PKCS#11 URI gives both pin-value and pin-source; give one");
  }
  return uri;
}

}  // namespace publish
