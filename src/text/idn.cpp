#include "text/idn.h"

#include <idna.h>
#include <limits.h>
#include <regex.h>
#include <string.h>

#include <array>
#include <string_view>

#include "error/asprintf_safe.h"
#include "log/c_string.private.h"
#include "log/messlog.h"

int idn_errno = 0;

namespace {

using frask::CString;

struct CodeText {
  int code;
  const char* text;
};

constexpr std::array<CodeText, 11> kCodeTexts{
    {{IDNA_SUCCESS, "Success"},
     {IDNA_STRINGPREP_ERROR, "Stringprep error"},
     {IDNA_PUNYCODE_ERROR, "Punycode error"},
     {IDNA_CONTAINS_NON_LDH, "Contains non-LDH characters"},
     {IDNA_CONTAINS_MINUS, "Contains minus"},
     {IDNA_INVALID_LENGTH, "Invalid length"},
     {IDNA_NO_ACE_PREFIX, "ACE prefix not found"},
     {IDNA_ROUNDTRIP_VERIFY_ERROR, "Verify error"},
     {IDNA_CONTAINS_ACE_PREFIX, "ACE prefix found"},
     {IDNA_ICONV_ERROR, "Iconv error"},
     {IDNA_MALLOC_ERROR, "Cannot allocate buffer"}}};

/// Whether a result of libidn is a success; a failure is kept in idn_errno.
bool succeeded(int code) {
  if (code == IDNA_MALLOC_ERROR) messlog2(1, 1, "Allocation failed");
  if (code != IDNA_SUCCESS) idn_errno = code;
  return code == IDNA_SUCCESS;
}

/// Passes on the result of `routine`; a missing one is fatal.
char* required(char* result, const char* routine, const char* input) {
  if (result == nullptr)
    messlog2(1, 1, "%s(%s) failed: %s", routine, input, idn_strerror(idn_errno));
  return result;
}

/// The parts of a URL, as the groups of the pattern number them.
enum UrlPart { kWhole, kScheme, kUser, kHost, kRest, kUrlParts };

class UrlPattern {
 public:
  using Parts = std::array<regmatch_t, kUrlParts>;

  UrlPattern() {
    // Deliberate: the scheme is matched in small letters only; in capitals it is taken for the
    // host, and the true host for the rest. Pinned by IdnUrlToascii.TakesACapitalSchemeForTheHost.
    const int error =
        regcomp(&pattern_, "^(ftp://|https?://)?([^@]+@)?([^/:]+)(.*)?$", REG_EXTENDED);
    if (error != 0) messlog2(1, 1, "regcomp() failed: %s", text_of(error).data());
  }
  ~UrlPattern() { regfree(&pattern_); }
  UrlPattern(const UrlPattern&) = delete;
  UrlPattern& operator=(const UrlPattern&) = delete;

  /// regexec()'s result.
  int match(const char* url, Parts& parts) const {
    return regexec(&pattern_, url, parts.size(), parts.data(), 0);
  }

  std::array<char, 256> text_of(int error) const {
    std::array<char, 256> text{};
    regerror(error, &pattern_, text.data(), text.size());
    return text;
  }

 private:
  regex_t pattern_{};
};

/// The part of a URL that a group took; empty where it took none.
std::string_view part_of(const char* url, const regmatch_t& group) {
  if (group.rm_so < 0) return {};
  return {url + group.rm_so, static_cast<size_t>(group.rm_eo - group.rm_so)};
}

/// A text of at most 4095 bytes. What does not fit whole is left out, and the text no longer fits.
class BoundedText {
 public:
  char* data() { return text_; }
  bool fits() const { return fits_; }

  void clear() {
    length_ = 0;
    text_[0] = '\0';
    fits_ = true;
  }

  void append(std::string_view more) {
    fits_ = fits_ && more.size() < sizeof text_ - length_;
    if (!fits_) return;
    more.copy(text_ + length_, more.size());
    length_ += more.size();
    text_[length_] = '\0';
  }

 private:
  char text_[4096] = "";
  size_t length_ = 0;
  bool fits_ = true;
};

/// Whether a text fits; a failure is kept in idn_errno as that of a domain that is too long.
bool fits_or_fails(const BoundedText& text) {
  if (!text.fits()) idn_errno = IDNA_INVALID_LENGTH;
  return text.fits();
}

/// Puts a URL together anew in `result`, its host converted. False, with the failure in idn_errno,
/// where the host cannot be converted, or it or the whole is too long: a text that was cut would
/// name another host or place.
bool rebuild(const char* url, const UrlPattern::Parts& parts, BoundedText& result) {
  result.clear();
  result.append(part_of(url, parts[kHost]));
  if (!fits_or_fails(result)) return false;
  const CString host(idn_toascii(result.data()));
  if (host == nullptr) return false;
  result.clear();
  result.append(part_of(url, parts[kScheme]));
  result.append(part_of(url, parts[kUser]));
  result.append(host.get());
  result.append(part_of(url, parts[kRest]));
  return fits_or_fails(result);
}

/// Whether a text is too long for regexec(), which counts in ints and would not return.
bool is_endless(const char* text) {
  return strnlen(text, INT_MAX) == INT_MAX;
}

/// Null, as the result of a failed conversion.
char* report_failed_conversion() {
  messlog2(0, 1, "idn_toascii() failed: %s", idn_strerror(idn_errno));
  return nullptr;
}

}  // namespace

char* idn_toascii(const char* domain) {
  char* output = nullptr;
  const bool converted = succeeded(idna_to_ascii_8z(domain, &output, 0));
  CString ascii(output);
  return converted ? ascii.release() : nullptr;
}

char* idn_toascii_safe(const char* domain) {
  return required(idn_toascii(domain), "idn_toascii_safe", domain);
}

char* idn_toutf8(const char* domain) {
  char* utf8 = nullptr;
  // Deliberate: a failure is not freed here, unlike in idn_toascii(); callers get what the library
  // left. Pinned by IdnToutf8WithASubstitute.HandsOnWhatTheLibraryLeft.
  static_cast<void>(succeeded(idna_to_unicode_8z8z(domain, &utf8, 0)));
  return utf8;
}

char* idn_url_toascii(const char* url) {
  static BoundedText result;
  if (is_endless(url)) {
    idn_errno = IDNA_INVALID_LENGTH;
    return report_failed_conversion();
  }
  const UrlPattern pattern;
  UrlPattern::Parts parts{};
  const int error = pattern.match(url, parts);
  if (error != 0) {
    messlog2(0, 1, "regexec() failed: %s", pattern.text_of(error).data());
    return nullptr;
  }
  if (parts[kHost].rm_so < 0) {
    messlog2(0, 1, "no hostname found in URL");
    return nullptr;
  }
  return rebuild(url, parts, result) ? result.data() : report_failed_conversion();
}

char* idn_email_toascii(const char* address) {
  // Deliberate: the first "@" of several ends the local part, and all behind it is the domain.
  // Pinned by IdnEmailToascii.TakesAllBehindTheFirstAtForTheDomain.
  const char* at = strchr(address, '@');
  if (at == nullptr) return nullptr;
  if (at - address > INT_MAX) {  // longer than a formatted text can be
    idn_errno = IDNA_INVALID_LENGTH;
    return nullptr;
  }
  const CString domain(idn_toascii(at + 1));
  // Deliberate: a domain that cannot be converted does not make the routine fail; callers look at
  // idn_errno. Pinned by IdnEmailToascii.WritesNullForADomainThatCannotBeConverted.
  return asprintf_safe("%.*s@%s", static_cast<int>(at - address), address,
                       domain != nullptr ? domain.get() : "(null)");
}

char* idn_email_toascii_safe(const char* address) {
  // Deliberate: an address without "@" sets no idn_errno, so the report gives the text of whatever
  // failed before. Pinned by IdnEmailToasciiSafe.ReportsTheFailureOfAnEarlierConversion.
  return required(idn_email_toascii(address), "idn_email_toascii_safe", address);
}

const char* idn_strerror(int code) {
  for (const CodeText& known : kCodeTexts)
    if (known.code == code) return known.text;
  return "Unknown error";
}
