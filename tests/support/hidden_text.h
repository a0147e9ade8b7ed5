// Finds out whether a secret is still somewhere in this process's memory.
#ifndef TESTS_SUPPORT_HIDDEN_TEXT_H
#define TESTS_SUPPORT_HIDDEN_TEXT_H

#include <stddef.h>

#include <string>

namespace testsupport {

/// A text of one word of 16 characters, repeated, that this process never holds other than in
/// disguise, so that any copy found in memory was made by the code under test.
class HiddenText {
 public:
  explicit HiddenText(size_t repetitions);

  size_t size() const;
  /// Appends the text to a file, character by character.
  void append_to(const std::string& path) const;
  /// How often the word stands in the writable memory of this process: heap, stack, static data,
  /// freed blocks included.
  size_t copies_of_the_word() const;

 private:
  std::string disguised_word_;
  size_t repetitions_;
};

}  // namespace testsupport

#endif
