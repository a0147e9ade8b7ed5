/**
 * @file
 * Processes, pipelines and redirections as objects.
 *
 * A TExec is a program with its arguments, a mode and preparations, which act at fixed points
 * around fork and exec. Operators add preparations and join commands into a TExecsList, one line as
 * a shell would run it; each returns a changed copy and leaves its operands as they were.
 * docs/processes.md shows whole lines.
 *
 * Failed system calls throw TSysCallErr. A failure in the child, its exec included, is thrown IN
 * THE CHILD, which is then a second process in the caller's code: a caller who catches exceptions
 * around execute() ends that process there.
 *
 * Objects and their copies share preparations through plain counts and stay in one thread; threads
 * may use objects of their own side by side.
 */
#ifndef FRASK_EXEC_TEXEC_H
#define FRASK_EXEC_TEXEC_H

#include <bitset>
#include <list>
#include <string>

#include "exec/Handle.h"
#include "exec/TEArgs.h"
#include "exec/TError.h"
#include "log/api.h"

namespace frask::sys {

/** Start a child; without it the program replaces the calling process. */
inline constexpr std::bitset<3> fork_mode{1};
/** Wait for the child before returning; its output into a pipe must fit in the pipe's buffer. */
inline constexpr std::bitset<3> wait_mode{2};
/** Search the program as execvp(3) does. */
inline constexpr std::bitset<3> path_mode{4};

/**
 * The empty vector from which callers build theirs. Static initialisers may use it. It is one
 * object for all threads, and to copy it counts its sharers by a plain count: threads that run side
 * by side begin with a TEArgs() of their own instead.
 */
extern FRASK_API const TEArgs el;

/** What execute() tells of the process that it started. */
struct FRASK_API TSLProcess {
  /** -1 when nothing was started and a preparation asked for silence, 0 for an empty line. */
  int pid = 0;
  /** Waited for: the exit code, or -1 after a death by signal. Not waited for: 0. pid -1: -1. */
  int result = 0;
};

/** A program with its arguments, how it is run, and what is done around its start. */
class FRASK_API TExec {
 public:
  /**
   * The points around fork and exec at which a preparation may act. This root does nothing. A hook
   * may change the object that is being executed and may throw; each copy of the object shares it.
   */
  class FRASK_API TPrepare {
   public:
    TPrepare() = default;
    TPrepare(const TPrepare&) = default;
    TPrepare& operator=(const TPrepare&) = default;
    virtual ~TPrepare();

    /** In the calling process; not without fork_mode. */
    virtual void bef_fork(TExec& command);
    /**
     * errno tells why.
     *
     * @return true: the failure is thrown; false: execute() gives pid -1, and a line goes on with
     *         its next command as if this one had ended at once, without reading or writing
     */
    virtual bool fork_failed(TExec& command);
    /** After the fork, in the parent. */
    virtual void aft_fork4p(TExec& command);
    /** After the fork, in the child. */
    virtual void aft_fork4d(TExec& command);
    /** In the child; without fork_mode in the calling process. */
    virtual void bef_exec(TExec& command);
    /**
     * In the same process; errno tells why.
     *
     * @return true: the failure is thrown; false: execute() gives pid -1. With fork_mode that is in
     *         the child, which then goes on with the caller's code, and first with the rest of the
     *         line: every later command is started twice, by the child with that child's
     *         descriptors, and by the parent. In a line call _exit() instead of returning false.
     */
    virtual bool exec_failed(TExec& command);
  };

  ///@{
  /** The modes under the class's name, and all of them: the default. */
  static constexpr std::bitset<3> fork_mode{1};
  static constexpr std::bitset<3> wait_mode{2};
  static constexpr std::bitset<3> path_mode{4};
  static constexpr std::bitset<3> def_mode{7};
  ///@}

  /** The message of the TSysErr for a command without a program. */
  static const std::string bad_args_m;

  /** A command without preparations; nothing is looked at before it is executed. */
  TExec(const TEArgs& args, std::bitset<3> mode = def_mode);

  ///@{
  /** What the command consists of. */
  const TEArgs& args() const noexcept { return args_; }
  std::bitset<3> mode() const noexcept { return mode_; }
  ///@}
  /** Empty as long as nothing has been added. */
  const Handle<TPrepare>& preparation() const noexcept { return preparation_; }

  ///@{
  /** Replaces what is there. */
  void set_mode(std::bitset<3> mode) noexcept { mode_ = mode; }
  void set_preparation(const Handle<TPrepare>& preparation) noexcept { preparation_ = preparation; }
  ///@}

  /**
   * Runs the program as the mode says: bef_fork, fork (fork_failed), then aft_fork4p and the wait
   * in the parent, aft_fork4d, bef_exec and exec (exec_failed) in the child. Without fork_mode it
   * returns only after a failure.
   *
   * A child without wait_mode is the caller's to wait for. One whose number the caller never
   * learns, because waiting or aft_fork4p failed, is collected by a later execute().
   *
   * @throws TSysErr      bad_args_m for an empty vector, before anything else is done
   * @throws TSysCallErr  fork, exec or waitpid failed (EINTR, too: such a wait is not repeated)
   */
  TSLProcess execute();

 private:
  TEArgs args_;
  std::bitset<3> mode_;
  Handle<TPrepare> preparation_;
};

/** Commands in the order in which they are started. */
class FRASK_API TExecsList {
 public:
  ///@{
  /** Those of a standard list. */
  using iterator = std::list<TExec>::iterator;
  using const_iterator = std::list<TExec>::const_iterator;
  ///@}

  TExecsList() = default;
  /** A line of one command. */
  TExecsList(const TExec& command);

  ///@{
  /** As a standard list has them. */
  std::size_t size() const noexcept { return commands_.size(); }
  bool empty() const noexcept { return commands_.empty(); }
  iterator begin() noexcept { return commands_.begin(); }
  iterator end() noexcept { return commands_.end(); }
  const_iterator begin() const noexcept { return commands_.begin(); }
  const_iterator end() const noexcept { return commands_.end(); }
  TExec& front() { return commands_.front(); }
  TExec& back() { return commands_.back(); }
  ///@}

  /** Moves the commands of `other` to the end of this line. */
  void splice(TExecsList& other) noexcept { commands_.splice(commands_.end(), other.commands_); }

  /**
   * Executes each command and returns the last one's result, zeros for an empty line. It does not
   * wait for commands without wait_mode: the last one is the caller's to wait for; earlier ones,
   * whose numbers nobody learns, are collected when they have ended, at the latest by a later
   * execute().
   *
   * Should a command throw, later ones are not started, and the pipes that then have no reader are
   * closed, so that their writers get SIGPIPE.
   */
  TSLProcess execute();

 private:
  std::list<TExec> commands_;
};

/** A pipe between two commands. Its ends are closed on exec and numbered from 10 if possible. */
class FRASK_API TPipe {
 public:
  TPipe() = default;
  TPipe(const TPipe&) = delete;
  TPipe& operator=(const TPipe&) = delete;
  ~TPipe();

  ///@{
  /** The descriptors, owned by the pipe; -1 before create() and once closed. */
  int read_end() const noexcept { return read_end_; }
  int write_end() const noexcept { return write_end_; }
  ///@}

  /** Opens the pipe, closing what an earlier call has opened. @throws TSysCallErr */
  void create();

  ///@{
  /** Does nothing for an end that is closed. */
  void close_read_end() noexcept;
  void close_write_end() noexcept;
  ///@}

  ///@{
  /** For a child: makes the one end its standard input or output and closes the other. */
  void to_stdin() noexcept;
  void to_stdout() noexcept;
  ///@}

 private:
  int read_end_ = -1;
  int write_end_ = -1;
};

/**
 * Makes `target` a copy of `source` in the child. A source that is not open, or is the target
 * itself, leaves the target closed.
 */
class FRASK_API TRedirect : public TExec::TPrepare {
 public:
  ///@{
  /** The two descriptors, of the child; neither is looked at before the fork. */
  TRedirect(int target, int source) noexcept : target_(target), source_(source) {}
  int target() const noexcept { return target_; }
  int source() const noexcept { return source_; }
  ///@}
  void aft_fork4d(TExec& command) override;

 private:
  int target_;
  int source_;
};

/**
 * Lets a descriptor of the child write to a file, which is created with mode 0664 and is either
 * appended to or truncated. Where it cannot be opened, the program runs with the descriptor closed.
 */
class FRASK_API TRedirectToFile : public TExec::TPrepare {
 public:
  /** Opens nothing yet. */
  TRedirectToFile(int descriptor, const std::string& path, bool append);
  void aft_fork4d(TExec& command) override;

 private:
  int descriptor_;
  std::string path_;
  bool append_;
};

/** TRedirectToFile for standard output. */
class FRASK_API TToFile : public TExec::TPrepare {
 public:
  /** Opens nothing yet. */
  TToFile(const std::string& path, bool append);
  void aft_fork4d(TExec& command) override;

 private:
  std::string path_;
  bool append_;
};

/** Lets the child read a file; where it cannot be opened, the program runs with 0 closed. */
class FRASK_API TFromFile : public TExec::TPrepare {
 public:
  /** Opens nothing yet. */
  explicit TFromFile(const std::string& path);
  void aft_fork4d(TExec& command) override;

 private:
  std::string path_;
};

/** Sends standard output into a pipe that the parent reads after execute(). */
class FRASK_API TReadOut : public TExec::TPrepare {
 public:
  ///@{
  /** The descriptors, owned by this object until its next use; -1 where there is none. */
  int read_end() const noexcept { return pipe_.read_end(); }
  int write_end() const noexcept { return pipe_.write_end(); }
  ///@}
  /** For a parent that has read enough: whoever writes on gets SIGPIPE. */
  void close_read_end() noexcept { pipe_.close_read_end(); }

  void bef_fork(TExec& command) override;
  void aft_fork4p(TExec& command) override;
  void aft_fork4d(TExec& command) override;

 private:
  TPipe pipe_;
};

/** Sends standard output into a pipe that the next command reads. The handle is never empty. */
class FRASK_API TWriteToPipeline : public TExec::TPrepare {
 public:
  ///@{
  /** The pipe, which is shared with the reader. */
  explicit TWriteToPipeline(const Handle<TPipe>& pipe) noexcept : pipe_(pipe) {}
  const TPipe& pipe() const noexcept { return *pipe_; }
  ///@}
  void bef_fork(TExec& command) override;
  void aft_fork4d(TExec& command) override;

 private:
  Handle<TPipe> pipe_;
};

/** Takes standard input from the pipe that an earlier command writes. The handle is never empty. */
class FRASK_API TReadFromPipeline : public TExec::TPrepare {
 public:
  ///@{
  /** The pipe, which is shared with the writer. */
  explicit TReadFromPipeline(const Handle<TPipe>& pipe) noexcept : pipe_(pipe) {}
  const TPipe& pipe() const noexcept { return *pipe_; }
  ///@}
  /** Closes both ends: what a line does for a reader that is not started. */
  void close_pipe() noexcept;
  void aft_fork4p(TExec& command) override;
  void aft_fork4d(TExec& command) override;

 private:
  Handle<TPipe> pipe_;
};

/**
 * Feeds a text as standard input, from a process that the child forks for it. That process is the
 * program's child, and init's once the program has ended.
 */
class FRASK_API TReadFromStr : public TExec::TPrepare {
 public:
  /** @param text  copied; NUL bytes in it are passed on */
  explicit TReadFromStr(const std::string& text);
  void aft_fork4d(TExec& command) override;

  /** The reading side: the read end becomes standard input, both ends are closed. */
  void action_of_p(int read_end, int write_end) const;
  /**
   * The writing side: the write end becomes standard output, every other descriptor but standard
   * input and error is closed, the text is written and the process ends, without the caller's exit
   * handlers and unwritten output. Its status is 0 whatever became of the text;
   * SIGPIPE, unless it is ignored, ends it when the text is not read to its end.
   */
  [[noreturn]] void action_of_d(int read_end, int write_end) const;

 private:
  std::string text_;
};

/** Two preparations as one: at each point the first acts, then the second; either may be absent. */
class FRASK_API TUnionPrep : public TExec::TPrepare {
 public:
  ///@{
  /** The two, as they were given. */
  TUnionPrep(const Handle<TExec::TPrepare>& first, const Handle<TExec::TPrepare>& second) noexcept
      : first_(first), second_(second) {}
  const Handle<TExec::TPrepare>& first() const noexcept { return first_; }
  const Handle<TExec::TPrepare>& second() const noexcept { return second_; }
  ///@}

  void bef_fork(TExec& command) override;
  /** Both are asked; the second one's answer counts, and it is true when there is no second. */
  bool fork_failed(TExec& command) override;
  void aft_fork4p(TExec& command) override;
  void aft_fork4d(TExec& command) override;
  void bef_exec(TExec& command) override;
  /** As fork_failed(). */
  bool exec_failed(TExec& command) override;

 private:
  Handle<TExec::TPrepare> first_;
  Handle<TExec::TPrepare> second_;
};

/**
 * Replaces the process by args[0] with these arguments; each is cut at its first NUL.
 *
 * @param search_path  search the program as execvp(3) does
 * @return -1 with errno set, only on failure
 * @throws TEArgs::TOutOfRange for an empty vector
 */
FRASK_API int exec_v(const TEArgs& args, bool search_path);

///@{
/** Keep only these bits of the mode; add them; toggle them; replace the mode. */
FRASK_API TExec operator&(TExec command, std::bitset<3> mode);
FRASK_API TExec operator|(TExec command, std::bitset<3> mode);
FRASK_API TExec operator^(TExec command, std::bitset<3> mode);
FRASK_API TExec operator*(TExec command, std::bitset<3> mode);
///@}

/** Replaces the preparation. */
FRASK_API TExec operator*(TExec command, const Handle<TExec::TPrepare>& preparation);

///@{
/** Adds a preparation, to act after those that are there; to the last command of a line, if any. */
FRASK_API TExec& operator+=(TExec& command, const Handle<TExec::TPrepare>& preparation);
FRASK_API TExecsList& operator+=(TExecsList& line, const Handle<TExec::TPrepare>& preparation);
///@}

///@{
/** Adds a redirection of any descriptor; to the last command of a line. */
FRASK_API TExec operator&(const TExec& command, const TRedirect& redirect);
FRASK_API TExec operator&(const TExec& command, const TRedirectToFile& redirect);
FRASK_API TExecsList operator&(const TExecsList& line, const TRedirect& redirect);
FRASK_API TExecsList operator&(const TExecsList& line, const TRedirectToFile& redirect);
///@}

///@{
/** Standard input: << is the text itself, < the path of a file. Of a line, the LAST command's. */
FRASK_API TExec operator<<(const TExec& command, const std::string& text);
FRASK_API TExec operator<(const TExec& command, const std::string& path);
FRASK_API TExecsList operator<<(const TExecsList& line, const std::string& text);
FRASK_API TExecsList operator<(const TExecsList& line, const std::string& path);
///@}

///@{
/** Standard output to a file: > truncates it, >> appends. Of a line, the last command's. */
FRASK_API TExec operator>(const TExec& command, const std::string& path);
FRASK_API TExec operator>>(const TExec& command, const std::string& path);
FRASK_API TExecsList operator>(const TExecsList& line, const std::string& path);
FRASK_API TExecsList operator>>(const TExecsList& line, const std::string& path);
///@}

///@{
/**
 * A pipe from the last command on the left to the first on the right. With an empty line on one
 * side there is none. A single command on the left of a line loses its wait_mode, so that it need
 * not fit its output in the pipe's buffer; the other three pairings leave every mode as it is.
 */
FRASK_API TExecsList operator|(const TExec& left, const TExec& right);
FRASK_API TExecsList operator|(const TExec& left, const TExecsList& right);
FRASK_API TExecsList operator|(const TExecsList& left, const TExec& right);
FRASK_API TExecsList operator|(const TExecsList& left, const TExecsList& right);
///@}

///@{
/** One after the other, without a pipe. */
FRASK_API TExecsList operator,(const TExec&left, const TExec&right);
FRASK_API TExecsList operator,(const TExec&left, const TExecsList&right);
FRASK_API TExecsList operator,(const TExecsList&left, const TExec&right);
FRASK_API TExecsList operator,(const TExecsList&left, const TExecsList&right);
///@}

/**
 * Executes the line and then reads what its last command writes to standard output, until the end
 * of data or an error in reading, an interruption included: `out` gets nothing of what is written
 * afterwards. That is read all the same and thrown away, so that the line ends as it would have;
 * only where reading goes on failing, or the last command has stopped, is the pipe closed, and the
 * writer gets SIGPIPE. Returns when
 * every process of the line has ended or, stopped, has been left to a later execute() to collect.
 *
 * A capture is a preparation that lets failures of fork and exec be thrown, added behind those of
 * the command, so no preparation can keep them quiet.
 *
 * @param out     what was read is appended
 * @param status  the last command's status as waitpid(2) with WUNTRACED gives it; 0 when execute()
 *                has waited for it, whatever its end, and for an empty line
 * @throws SystemError  "waitpid() failed", besides what TExecsList::execute() throws
 */
FRASK_API void execGetOutput(std::string* out, int* status, const TExecsList& line);

///@{
/**
 * execGetOutput(), with the status taken as a failure.
 *
 * @throws std::runtime_error  "child failed (status=S): OUT" after a signal or a stop, S being the
 *                             raw status; "child failed (exit code=C): OUT" for a code other than
 * 0; never for a last command with wait_mode, whose status is not seen
 */
FRASK_API std::string& operator<<=(std::string& out, const TExecsList& line);
FRASK_API std::string& operator<<=(std::string& out, const TExec& command);
///@}

}  // namespace frask::sys

#endif
