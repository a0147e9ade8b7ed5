/**
 * @file
 * POSIX regular expressions: compiled once, matched often, their parts handed out as strings.
 */
#ifndef FRASK_TEXT_REGEXP_H
#define FRASK_TEXT_REGEXP_H

#include <regex.h>
#include <stddef.h>

#include <boost/shared_ptr.hpp>
#include <string>
#include <utility>
#include <vector>

#include "log/api.h"

namespace frask {

/**
 * A compiled pattern. It is neither copied nor moved, and is released with the object. Matching
 * changes nothing in it; a result belongs to one match at a time.
 *
 * Patterns and subjects go to regcomp(3) and regexec(3) as C strings: each ends at its first NUL
 * byte. A subject must be shorter than 2 GiB: regexec() counts in ints, and does not return from
 * more.
 */
class FRASK_API Regexp {
 public:
  /**
   * What a match found. A result may be used again: see match_from() for what it then keeps.
   *
   * A region is a start, counted from `offset`, and a length. A start of -1 stands for a sub-match
   * that took no part.
   */
  struct MatchResultData {
    std::string text;   ///< the whole subject, what lies before `offset` included
    size_t offset = 0;  ///< where in `text` the search began
    std::vector<std::pair<int, unsigned long>> regions;  ///< [0] is the whole match

    /** The region of one sub-match; `index` must be below regions.size(). */
    std::pair<int, unsigned long> getRange(unsigned long index) const;

    /**
     * Regexp::getRegion() of `text` and the region at `index`, which must be below regions.size().
     * Right for a search from offset 0 only: the start is not shifted by `offset`. Throws as that
     * does.
     */
    std::string getString(unsigned long index) const;
  };

  /**
   * Compiles a pattern.
   *
   * @param flags  those of regcomp(3): REG_EXTENDED, REG_ICASE, REG_NOSUB, REG_NEWLINE
   * @throws std::runtime_error whose text is what regerror(3) says of the pattern
   */
  Regexp(const std::string& pattern, int flags);
  Regexp(const Regexp&) = delete;
  Regexp& operator=(const Regexp&) = delete;
  ~Regexp();

  /**
   * Searches `subject` from `offset` on. "^" matches at the offset unless `eflags` has REG_NOTBOL.
   * An offset beyond the end of the subject is a non-match.
   *
   * A match sets text and offset of `data` and gives it exactly `count` regions. A sub-match that
   * took no part, each one past the pattern's own, and all of them under REG_NOSUB leave their
   * region as it was: (0, 0) when it is new, else the value of an earlier match. A non-match
   * changes nothing in `data`, and neither does an exception.
   *
   * @param data    may be NULL: nothing is captured then
   * @param count   how many sub-matches to capture, the whole match being number 0
   * @param eflags  REG_NOTBOL, REG_NOTEOL and whatever else regexec(3) knows, passed on as they are
   *                but for REG_STARTEND, which is masked: nobody could give its bounds
   * @return true for a match, and also when regexec(3) fails with any code but REG_NOMATCH, as it
   *         does for execution flags that it does not know; false for a non-match
   * @throws std::length_error, std::bad_alloc  no room for `count` regions or the text
   */
  bool match_from(MatchResultData* data, const std::string& subject, unsigned long offset,
                  unsigned long count, int eflags) const;

  /** match_from() with offset 0. */
  bool match(MatchResultData* data, const std::string& subject, unsigned long count,
             int eflags) const;

  /** The same with a result of its own. @return an empty pointer for a non-match */
  boost::shared_ptr<MatchResultData> match(const std::string& subject, unsigned long count,
                                           int eflags) const;

  /**
   * The part of `text` that a region stands for, "" for a start of -1. A length that reaches past
   * the end is cut there.
   *
   * @throws std::out_of_range when the region starts past the end of the text
   */
  static std::string getRegion(const std::string& text,
                               const std::pair<int, unsigned long>& region);

  /** getRegion() of `text` for each region of `data`, in order. */
  static std::vector<std::string> getRegions(const std::string& text, const MatchResultData& data);

  /**
   * The pattern that matches exactly `text`: a backslash before each of \.*[]^$ and, for patterns
   * compiled with REG_EXTENDED, before each of +?{}()| as well.
   */
  static std::string quote(const std::string& text, bool extended);

 private:
  regex_t pattern_;
};

}  // namespace frask

#endif
