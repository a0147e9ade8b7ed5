#include "text/Regexp.h"

#include <algorithm>
#include <boost/make_shared.hpp>
#include <stdexcept>
#include <string_view>

namespace frask {
namespace {

constexpr std::string_view kBasicSet = "\\.*[]^$";
constexpr std::string_view kExtendedSet = "+?{}()|";

std::string errorText(int code, const regex_t& pattern) {
  const size_t size = regerror(code, &pattern, nullptr, 0);  // counts the final NUL
  std::string text(size - 1, '\0');
  regerror(code, &pattern, text.data(), size);
  return text;
}

}  // namespace

std::pair<int, unsigned long> Regexp::MatchResultData::getRange(unsigned long index) const {
  return regions[index];
}

std::string Regexp::MatchResultData::getString(unsigned long index) const {
  // Deliberate: starts count from the offset, yet the whole text is sliced at them unshifted.
  // Pinned by RegexpOffset.GetStringSlicesTheWholeTextAtTheUnshiftedStart.
  return getRegion(text, getRange(index));
}

Regexp::Regexp(const std::string& pattern, int flags) {
  const int code = regcomp(&pattern_, pattern.c_str(), flags);
  if (code != 0) throw std::runtime_error(errorText(code, pattern_));
}

Regexp::~Regexp() {
  regfree(&pattern_);
}

bool Regexp::match_from(MatchResultData* data, const std::string& subject, unsigned long offset,
                        unsigned long count, int eflags) const {
  if (offset > subject.size()) return false;
  // More than the pattern has never take part, so an enormous count costs nothing here.
  const size_t room = data == nullptr ? 0 : std::min<size_t>(count, pattern_.re_nsub + 1);
  std::vector<regmatch_t> found(room, regmatch_t{-1, -1});
  // REG_STARTEND would have regexec() take the bounds of the search from `found`; every other flag
  // is the caller's.
  const int code =
      regexec(&pattern_, subject.c_str() + offset, room, found.data(), eflags & ~REG_STARTEND);
  // Deliberate: a search that failed counts as a match. Pinned by
  // RegexpMatchFrom.TakesASearchThatFailedForAMatch.
  if (code == REG_NOMATCH) return false;
  if (data == nullptr) return true;

  std::string text(subject);  // what may throw comes first: the result changes as a whole
  data->regions.resize(count);
  data->text.swap(text);
  data->offset = offset;
  for (size_t i = 0; i < room; ++i) {
    // Deliberate: what took no part keeps the value of an earlier match. Pinned by
    // RegexpMatchFrom.KeepsInAReusedResultWhatTookNoPart.
    if (found[i].rm_so == -1) continue;
    data->regions[i] = {found[i].rm_so,
                        static_cast<unsigned long>(found[i].rm_eo - found[i].rm_so)};
  }
  return true;
}

bool Regexp::match(MatchResultData* data, const std::string& subject, unsigned long count,
                   int eflags) const {
  return match_from(data, subject, 0, count, eflags);
}

boost::shared_ptr<Regexp::MatchResultData> Regexp::match(const std::string& subject,
                                                         unsigned long count, int eflags) const {
  auto data = boost::make_shared<MatchResultData>();
  if (!match(data.get(), subject, count, eflags)) data.reset();
  return data;
}

std::string Regexp::getRegion(const std::string& text,
                              const std::pair<int, unsigned long>& region) {
  const auto [start, length] = region;
  if (start == -1) return {};
  return text.substr(static_cast<size_t>(start), length);
}

std::vector<std::string> Regexp::getRegions(const std::string& text, const MatchResultData& data) {
  std::vector<std::string> parts;
  parts.reserve(data.regions.size());
  for (const auto& region : data.regions) parts.push_back(getRegion(text, region));
  return parts;
}

std::string Regexp::quote(const std::string& text, bool extended) {
  std::string quoted;
  quoted.reserve(text.size());
  for (const char c : text) {
    const bool special = kBasicSet.find(c) != std::string_view::npos ||
                         (extended && kExtendedSet.find(c) != std::string_view::npos);
    if (special) quoted += '\\';
    quoted += c;
  }
  return quoted;
}

}  // namespace frask
