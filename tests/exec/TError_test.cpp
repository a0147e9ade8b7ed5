#include "exec/TError.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>

#include <stdexcept>
#include <type_traits>

#include "error/SystemError.h"

using frask::Handle;
using frask::TError;
using frask::TFreeback;
using frask::sys::TSysCallErr;
using frask::sys::TSysErr;

namespace {

class Freeback : public TFreeback {
 public:
  explicit Freeback(int* destroyed) : destroyed_(destroyed) {}
  Freeback(const Freeback&) = delete;
  Freeback& operator=(const Freeback&) = delete;
  ~Freeback() override { ++*destroyed_; }

 private:
  int* destroyed_;
};

}  // namespace

TEST(TError, IsAFamilyOfItsOwn) {
  EXPECT_TRUE((std::is_base_of_v<std::exception, TError>));
  EXPECT_TRUE((std::is_base_of_v<TError, TSysErr>));
  EXPECT_TRUE((std::is_base_of_v<TSysErr, TSysCallErr>));
  EXPECT_FALSE((std::is_base_of_v<std::runtime_error, TError>));
  EXPECT_FALSE((std::is_base_of_v<frask::SystemError, TSysCallErr>));
}

TEST(TError, GivesItsMessage) {
  const TSysErr error("the message");
  EXPECT_STREQ(error.what(), "the message");
  const TError& as_base = error;
  EXPECT_STREQ(as_base.what(), "the message");
}

TEST(TError, KeepsItsMessageInCopies) {
  TError copy("another message");
  {
    const TError error(std::string(100, 'x'));
    copy = error;
    EXPECT_NE(copy.what(), error.what()) << "a text of its own";
  }
  EXPECT_EQ(copy.what(), std::string(100, 'x'));
}

TEST(TError, OwnsItsFreebackUntilTheLastCopyIsGone) {
  int destroyed = 0;
  try {
    const TError error("text", Handle<TFreeback>(new Freeback(&destroyed)));
    throw TError(error);
  } catch (const TError& caught) {
    EXPECT_EQ(destroyed, 0) << "the copy in flight is left";
  }
  EXPECT_EQ(destroyed, 1);
}

TEST(TSysCallErr, HasTheSystemTextAloneForItsMessage) {
  for (const int number : {ENOENT, EAGAIN, EMFILE, 12345}) {
    SCOPED_TRACE(number);
    const TSysCallErr error(number);
    EXPECT_EQ(error.error_number(), number);
    EXPECT_EQ(error.what(), std::string(strerror(number)));
  }
}
