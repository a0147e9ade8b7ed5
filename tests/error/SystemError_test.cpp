#include "error/SystemError.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>

#include <memory>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <utility>

namespace {

using frask::ExSystemError;
using frask::SystemError;
using frask::throwSystemError;

static_assert(std::is_base_of_v<std::runtime_error, SystemError>);
static_assert(std::has_virtual_destructor_v<SystemError>);
static_assert(noexcept(std::declval<const SystemError&>().what()));

/// The system's text for an error, in memory of its own: strerror() reuses its buffer.
std::string system_text(int code) {
  return strerror(code);
}

TEST(SystemError, SaysTheMessageAndTheSystemsText) {
  for (const int code : {0, 1, 2, 10, 13, 9999, -1}) {
    SCOPED_TRACE(code);
    const SystemError error("waitpid() failed", code);
    EXPECT_EQ(error.code(), code);
    EXPECT_EQ(error.what(), "waitpid() failed: " + system_text(code));
  }
  EXPECT_STREQ(SystemError("waitpid() failed", 10).what(), "waitpid() failed: No child processes");
}

TEST(SystemError, SaysTheSystemsTextAloneWithoutAMessage) {
  EXPECT_EQ(SystemError("", 13).what(), system_text(13));
}

TEST(SystemError, TakesAnyMessageAsItIs) {
  EXPECT_EQ(SystemError("100%n%s: ", 2).what(), "100%n%s: : " + system_text(2));
  const std::string text(100000, 'x');
  EXPECT_TRUE(SystemError(text, 2).what() == text + ": " + system_text(2));
}

TEST(SystemError, BuildsItsTextOnce) {
  const SystemError error("x", 12345);
  const char* text = error.what();
  EXPECT_EQ(system_text(54321), "Unknown error 54321") << "the system's buffer now reads so";
  EXPECT_EQ(error.what(), text) << "the same memory";
  EXPECT_STREQ(error.what(), "x: Unknown error 12345");
}

TEST(SystemError, TakesNoNoticeOfErrno) {
  const SystemError error("x", 13);
  errno = ENOENT;
  EXPECT_EQ(error.what(), "x: " + system_text(13));
}

TEST(SystemError, SaysTheWholeTextThroughItsBases) {
  const std::unique_ptr<std::exception> error = std::make_unique<SystemError>("x", 13);
  EXPECT_EQ(error->what(), "x: " + system_text(13));
  const ExSystemError<2> missing("y");
  EXPECT_EQ(static_cast<const std::runtime_error&>(missing).what(), "y: " + system_text(2));
}

TEST(SystemError, CanBeCopiedWithItsText) {
  const SystemError error("x", 13);
  const SystemError fresh = error;
  error.what();
  const SystemError copy = error;
  SystemError assigned("y", 2);
  assigned.what();
  assigned = error;
  for (const SystemError* same : {&fresh, &copy, static_cast<const SystemError*>(&assigned)}) {
    EXPECT_EQ(same->what(), "x: " + system_text(13));
    EXPECT_NE(same->what(), error.what());
    EXPECT_EQ(same->code(), 13);
  }
}

TEST(SystemError, KeepsTheCodeAndThenTheTextBehindItsBase) {
  // Programs that were compiled against the library carry this layout in them.
  EXPECT_EQ(sizeof(SystemError), sizeof(std::runtime_error) + 8 + sizeof(std::string));
  EXPECT_EQ(sizeof(ExSystemError<1>), sizeof(SystemError));
  const SystemError error("x", 13);
  int code = 0;
  memcpy(&code, reinterpret_cast<const char*>(&error) + sizeof(std::runtime_error), sizeof code);
  EXPECT_EQ(code, 13);
}

/// Whether the code N, and only through its own class, arrives as ExSystemError<N>.
template <int N>
void expect_class_of_its_own() {
  SCOPED_TRACE(N);
  const ExSystemError<N> made("x");
  EXPECT_EQ(made.code(), N);
  EXPECT_EQ(made.what(), "x: " + system_text(N));
  errno = EACCES;
  try {
    throwSystemError("x", N);
  } catch (const ExSystemError<N>& error) {
    EXPECT_EQ(error.code(), N);
    EXPECT_EQ(error.what(), "x: " + system_text(N));
    return;
  } catch (...) {
  }
  ADD_FAILURE() << "thrown as another class";
}

TEST(ThrowSystemError, ThrowsTheClassOfEachFrequentError) {
  expect_class_of_its_own<EPERM>();
  expect_class_of_its_own<ENOENT>();
  expect_class_of_its_own<EINTR>();
  expect_class_of_its_own<ECHILD>();
  expect_class_of_its_own<EAGAIN>();
}

/// Whether `code` arrives as a plain SystemError of code `kept`.
void expect_plain(int code, int kept) {
  SCOPED_TRACE("code " + std::to_string(code) + " as " + std::to_string(kept));
  try {
    throwSystemError("x", code);
  } catch (const SystemError& error) {
    EXPECT_EQ(typeid(error), typeid(SystemError));
    EXPECT_EQ(error.code(), kept);
    EXPECT_EQ(error.what(), "x: " + system_text(kept));
  }
}

TEST(ThrowSystemError, ThrowsThePlainClassForEveryOtherCode) {
  for (const int code : {3, 5, 9, 12, 13, 35, 9999, -1, -2}) {
    errno = ENOENT;
    expect_plain(code, code);
  }
}

TEST(ThrowSystemError, TakesErrnoForZeroAndThrowsThePlainClass) {
  for (const int error : {0, EPERM, ENOENT, EINTR, ECHILD, EAGAIN, EACCES}) {
    errno = error;
    expect_plain(0, error);
  }
}

TEST(ThrowSystemError, TakesAnEmptyMessage) {
  try {
    throwSystemError("", ENOENT);
  } catch (const ExSystemError<ENOENT>& error) {
    EXPECT_EQ(error.what(), system_text(ENOENT));
  }
}

}  // namespace
