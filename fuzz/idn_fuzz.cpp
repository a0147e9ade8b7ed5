// Whatever the URL or the address, its host alone is converted, and all around it stays as it is.
#include <limits.h>
#include <stdint.h>

#include <algorithm>
#include <array>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "check.h"
#include "text/idn.h"

namespace {

struct Free {
  void operator()(char* text) const { free(text); }
};
using Text = std::unique_ptr<char, Free>;

struct Url {
  std::string before;  ///< the scheme and the user
  std::string host;
  std::string rest;
};

/// A host is what comes before a slash or a colon; there is none without a character of it.
std::optional<Url> from_host(std::string_view before, std::string_view rest) {
  const size_t end = std::min(rest.find_first_of("/:"), rest.size());
  if (end == 0) return std::nullopt;
  return Url{std::string(before), std::string(rest.substr(0, end)), std::string(rest.substr(end))};
}

/// From `begin` on, with the user where one can be.
std::optional<Url> from_user(std::string_view url, size_t begin) {
  const size_t at = url.find('@', begin);
  if (at != std::string_view::npos && at > begin)
    if (auto parts = from_host(url.substr(0, at + 1), url.substr(at + 1))) return parts;
  return from_host(url.substr(0, begin), url.substr(begin));
}

std::optional<Url> split(std::string_view url) {
  constexpr std::array<std::string_view, 3> kSchemes{"ftp://", "https://", "http://"};
  for (const std::string_view scheme : kSchemes)
    if (url.substr(0, scheme.size()) == scheme)
      if (auto parts = from_user(url, scheme.size())) return parts;
  return from_user(url, 0);
}

/// The host as the conversion gives it; it sets idn_errno where that fails.
Text converted(const std::string& host) {
  Text ascii(idn_toascii(host.c_str()));
  if (ascii)
    check(std::all_of(ascii.get(), ascii.get() + std::string_view(ascii.get()).size(),
                      [](char c) { return static_cast<unsigned char>(c) < 0x80; }));
  return ascii;
}

void check_url(const std::string& url) {
  const auto parts = split(url);
  const Text host = parts ? converted(parts->host) : nullptr;
  const char* result = idn_url_toascii(url.c_str());
  const std::string expected = host ? parts->before + host.get() + parts->rest : "";
  if (host && url.size() < PATH_MAX && expected.size() < PATH_MAX)
    check(result != nullptr && expected == result);
  else
    check(result == nullptr);
}

void check_address(const std::string& address) {
  idn_errno = 7;
  const Text result(idn_email_toascii(address.c_str()));
  const size_t at = address.find('@');
  if (at == std::string::npos) return check(!result && idn_errno == 7);
  const Text domain = converted(address.substr(at + 1));
  const std::string expected = address.substr(0, at + 1) + (domain ? domain.get() : "(null)");
  check(result && expected == result.get());
  check(domain ? idn_errno == 7 : idn_errno != 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text = c_string(std::string(data, data + size));
  check_url(text);
  check_address(text);
  return 0;
}
