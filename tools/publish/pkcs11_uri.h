#pragma once
// PKCS#11 URIs (RFC 7512): "pkcs11:" then path attributes separated by ";" that name the
// token and the object, then optionally "?" and query attributes separated by "&" that say
// how to reach it (module-path, pin-value, pin-source). Values are percent-decoded.
//
// A URI is read strictly: an attribute this tool does not know, one given twice, a
// character the URI syntax does not allow or a broken percent escape is refused with a
// message naming it. A signing tool that silently skipped a misspelt "objcet=" would sign
// with whatever other key happened to match.
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace publish {

struct Pkcs11Uri {
  std::map<std::string, std::string> path;   // attribute name -> decoded value
  std::map<std::string, std::string> query;  // attribute name -> decoded value

  std::optional<std::string> get(const std::string& name) const;
};

// True when the text is meant as a PKCS#11 URI (the scheme is case-insensitive).
bool is_pkcs11_uri(std::string_view text);

// Reads a URI; throws Error naming what is wrong.
Pkcs11Uri parse_pkcs11_uri(std::string_view text);

}  // namespace publish
