// Linked with the shared library, as programs outside are: what crosses its border.
#include <errno.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <stdexcept>

#include "exec/commands.h"
#include "exec/texec.h"

using frask::Handle;
using frask::sys::TEArgs;
using frask::sys::TExec;
using frask::sys::TExecsList;
using frask::sys::TPipe;
using testexec::command;
using testexec::shell;

namespace {

const TEArgs early_args = frask::sys::el;

class Hook : public TExec::TPrepare {
 public:
  explicit Hook(int* calls) : calls_(calls) {}
  void bef_fork(TExec&) override { ++*calls_; }

 private:
  int* calls_;
};

}  // namespace

TEST(SharedLibrary, ThrowsWhatAProgramCatchesByType) {
  EXPECT_THROW(early_args[0], TEArgs::TOutOfRange);
  EXPECT_THROW(early_args[0], frask::TError);
  EXPECT_THROW(early_args.throwTOverflow(1), TEArgs::TOverflow);
  EXPECT_THROW(TExec(early_args).execute(), frask::sys::TSysErr);
  EXPECT_THROW((TExec(testexec::arguments({"/nonexistent/program"}), 0)).execute(),
               frask::sys::TSysCallErr);
  std::string out;
  EXPECT_THROW(out <<= shell("exit 3") ^ TExec::wait_mode, std::runtime_error);
}

TEST(SharedLibrary, CallsAProgramsHooks) {
  int calls = 0;
  TExec hooked = command({"true"});
  hooked += Handle<TExec::TPrepare>(new Hook(&calls));
  hooked.execute();
  EXPECT_EQ(calls, 1);
}

TEST(SharedLibrary, ExportsEveryRoutine) {
  using namespace frask::sys;  // NOLINT(google-build-using-namespace): the operators
  const TExec cat = command({"cat"});
  TExecsList line = (cat, (cat < "/dev/null") | ((cat & fork_mode) | path_mode));
  line = (line & TRedirect(2, 1)) & TRedirectToFile(2, "/dev/null", true);
  EXPECT_EQ(line.size(), 3U);
  std::string out;
  int status = -1;
  execGetOutput(&out, &status, cat << "text");
  EXPECT_EQ(out, "text");
  EXPECT_EQ(exec_v(testexec::arguments({"/nonexistent/program"}), false), -1);
  EXPECT_EQ(TExec::bad_args_m, "Bad execute arguments");
  EXPECT_EQ(frask::xtos(5UL), "5");
  TPipe pipe;
  pipe.create();
  EXPECT_GE(pipe.read_end(), 0);
  const Handle<TExec::TPrepare> none;
  EXPECT_TRUE(TUnionPrep(none, none).fork_failed(line.front()));
}

TEST(SharedLibrary, LetsEveryPreparationBeDerivedFrom) {
  class A : public frask::sys::TReadOut {};
  class B : public frask::sys::TToFile {
   public:
    B() : TToFile("/dev/null", false) {}
  };
  const Handle<TExec::TPrepare> a(new A);
  const Handle<TExec::TPrepare> b(new B);
  EXPECT_NE(dynamic_cast<frask::sys::TReadOut*>(a.get()), nullptr);
  EXPECT_EQ(dynamic_cast<frask::sys::TReadOut*>(b.get()), nullptr);
}
