/**
 * @file
 * The argument vector of a process object.
 */
#ifndef FRASK_EXEC_TEARGS_H
#define FRASK_EXEC_TEARGS_H

#include <locale>
#include <sstream>
#include <string>
#include <vector>

#include "exec/Handle.h"
#include "exec/TError.h"
#include "log/api.h"

namespace frask {

/** The decimal text of a number, without the digit groups of the program's locale. */
template <class T>
std::string xtos(T value) {
  std::ostringstream text;
  text.imbue(std::locale::classic());
  text << value;
  return text.str();
}

extern template FRASK_API std::string xtos<unsigned long>(unsigned long);

namespace sys {

/**
 * A program and its arguments, at most 100 strings, the program first.
 *
 * Copies are cheap: they share the strings until one of them is extended, which never shows in the
 * others. A vector and its copies stay in one thread, because the count of the sharers is plain.
 */
class FRASK_API TEArgs {
 public:
  class TEArgsError;
  class TOutOfRange;
  class TOverflow;

  ///@{
  /** How the messages of TOverflow and TOutOfRange begin. Static initialisers may use both. */
  static const std::string exceed_lim;
  static const std::string wrong_index;
  ///@}

  /** No strings, but room for 10. */
  TEArgs();

  /** Appends one string. @throws TOverflow when there are 100 already */
  void push_back(std::string argument);

  /**
   * Appends every string of another vector, which may be this one or a copy of it.
   * @throws TOverflow when there would be more than 100, with nothing appended
   */
  void push_back(const TEArgs& other);

  ///@{
  /** How many strings there are. */
  unsigned long size() const noexcept { return rep_->arguments.size(); }
  bool empty() const noexcept { return rep_->arguments.empty(); }
  ///@}

  /** Valid until the vector is extended or destroyed. @throws TOutOfRange */
  const std::string& operator[](unsigned long index) const;

  ///@{
  /** Throw the error about this vector; `added` is how many strings were to be appended. */
  [[noreturn]] void throwTOutOfRange(unsigned long index) const;
  [[noreturn]] void throwTOverflow(unsigned long added) const;
  ///@}

 private:
  struct TRep {
    std::vector<std::string> arguments;
  };

  /// Makes the strings this object's alone.
  void detach();

  Handle<TRep> rep_;
};

/** Misuse of an argument vector, which the error shares as it was. */
class FRASK_API TEArgs::TEArgsError : public TSysErr {
 public:
  /** @param message  the whole text */
  TEArgsError(const TEArgs& args, const std::string& message);
  TEArgsError(const TEArgsError&) = default;
  TEArgsError& operator=(const TEArgsError&) = default;
  ~TEArgsError() override;

  /** The vector, as it was. */
  const TEArgs& args() const noexcept { return args_; }

 private:
  TEArgs args_;
};

/** "Wrong index (index = I)" */
class FRASK_API TEArgs::TOutOfRange : public TEArgsError {
 public:
  /** @param index  the one that does not exist */
  TOutOfRange(const TEArgs& args, unsigned long index);
  TOutOfRange(const TOutOfRange&) = default;
  TOutOfRange& operator=(const TOutOfRange&) = default;
  ~TOutOfRange() override;

  /** The index that was asked for. */
  unsigned long index() const noexcept { return index_; }

 private:
  unsigned long index_;
};

/**
 * "The number of arguments has exceeded the defined limits (arguments number = N, add. arguments
 * number = A, max = 100)", N being the vector's size.
 */
class FRASK_API TEArgs::TOverflow : public TEArgsError {
 public:
  /** @param added  how many strings were to be appended */
  TOverflow(const TEArgs& args, unsigned long added);
  TOverflow(const TOverflow&) = default;
  TOverflow& operator=(const TOverflow&) = default;
  ~TOverflow() override;
};

}  // namespace sys
}  // namespace frask

#endif
