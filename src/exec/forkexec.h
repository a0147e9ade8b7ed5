/**
 * @file
 * Starts other programs, wires their standard descriptors, captures what they write and turns their
 * wait status into a small integer. Programs are named by path, never searched for; only the
 * popen_exec family hands a command line to the shell.
 *
 * What holds for the whole family:
 * - An exit code is 0 to 255. A child that cannot be set up or whose program cannot be executed
 *   says so on its own standard error (which may be a captured stream) and exits with 255, so a
 *   missing program reads as 255 and not as -1.
 * - Argument vectors are as execv() takes them. Variadic arguments end with a NULL.
 * - Captured text is a heap string that the caller frees with free(), terminated at its length; a
 *   NUL byte from the child is kept as it is. Captures of 2147483647 bytes or more do not fit.
 * - What is fatal ends the process with status 1 through messlog2(), which adds the system error:
 *   no process, no pipe, no memory for a capture or for a copied argument vector.
 * - errno is not restored unless the routine says so, and messlog2() shows it where it is set.
 * - Nothing is locked and no signal is handled: one thread at a time, and an interrupted wait is a
 *   failed one.
 */
#ifndef FRASK_EXEC_FORKEXEC_H
#define FRASK_EXEC_FORKEXEC_H

#include <stdarg.h>
#include <unistd.h>

#include "log/api.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Starts a program with the given standard descriptors and returns at once; the caller waits.
 *
 * For each of the three the descriptor's own number (0, 1, 2) means the caller's one unchanged, and
 * -1 "/dev/null", opened for reading and writing. Any other descriptor is taken and then closed in
 * the child, standard input first, so the same one cannot serve twice: the child then exits with
 * 255 after "fork_execv: dup() failed: <system error>" on its standard error. All descriptors above
 * 2 are closed in the child. The caller's own copies stay open.
 *
 * Where execv() fails, the child writes "fork_execv: execv(\"PATH\") failed: <system error>".
 *
 * @return the child's process id; a failing fork is fatal ("fork_execv_pipes: fork() failed")
 */
FRASK_API int fork_execv_pipes(int fd_in, int fd_out, int fd_err, const char* path,
                               char* const argv[]);

/** fork_execv_pipes() with the vector, argv[0] included, as arguments; any number of them. */
FRASK_API int fork_execl_pipes(int fd_in, int fd_out, int fd_err, const char* path,
                               const char* arg0, ...);

/**
 * Waits for a child to end or to stop. Everything but a normal end is reported through frask_log:
 * a wait that failed at LOG_ERR, a signal, a stop or a continuation at LOG_WARNING.
 *
 * @param pid     a negative one stands for a failed fork, which is reported
 * @param name    what the reports call the process; NULL for "<unknown>"
 * @param status  receives the raw status word; may be NULL
 * @return the exit code, or -1
 */
FRASK_API int fork_exec_waitpid(int pid, const char* name, int* status);

/** fork_exec_waitpid() without the status word. A pid of -1 gives -1 without a report. */
FRASK_API int fork_exec_getres(int pid, const char* name);

/**
 * Runs a program and captures its standard output. It has the caller's standard input and error.
 *
 * The capture lasts until the output is closed everywhere, so a grandchild that holds it open is
 * waited for. In a second without output, or when a signal interrupts, the child is looked at as
 * well: once it has ended, what lies in the pipe is taken and the capture is over, whoever else
 * holds the pipe. In that case an abnormal end is not reported through frask_log.
 *
 * A failing pipe() or fcntl() is fatal ("fork_execv_getouterr: pipe() failed" and
 * "fork_execv_getouterr: fcntl(O_NONBLOCK) failed"; the texts are those of the sister routine).
 *
 * @param out  receives the text: "" when the stream was closed without output, NULL when it was
 *             still open elsewhere, and empty, as the child was found to have ended
 * @return the exit code, or -1 as from fork_exec_waitpid()
 */
FRASK_API int fork_execv_getout(char** out, const char* path, char* const argv[]);

/** fork_execv_getout() with the vector, argv[0] included, as arguments; any number of them. */
FRASK_API int fork_execl_getout(char** out, const char* path, const char* arg0, ...);

/**
 * fork_execv_getout() that captures standard error as well, each into a text of its own. Both are
 * read as they fill, so that neither the child nor the caller waits for the other for ever.
 */
FRASK_API int fork_execv_getouterr(char** out, char** err, const char* path, char* const argv[]);

/** fork_execv_getouterr() with the vector, argv[0] included, as arguments; any number of them. */
FRASK_API int fork_execl_getouterr(char** out, char** err, const char* path, const char* arg0, ...);

/**
 * Runs a program and shows what it wrote only when the result is not 0: its output on standard
 * error as it is, and its errors through messlog2() as "<path> execution failed:\n<errors>", or
 * "<path> execution failed (no output)" when that stream left no text at all.
 *
 * @param quiet  nonzero: show nothing
 * @return the result of fork_execv_getouterr()
 */
FRASK_API int fork_execv_log(const char* path, char* const argv[], int quiet);

/** fork_execv_log(), not quiet, with the vector, argv[0] included, as arguments. */
FRASK_API int fork_execl_log(const char* path, const char* arg0, ...);

/**
 * fork_execv_log(), not quiet, with the path as argv[0] and at most 99 arguments behind it; further
 * ones are dropped without notice.
 */
FRASK_API int path_exec(const char* path, const char* arg1, ...);

/** path_exec() with the arguments, the first included, in a va_list (indeterminate afterwards). */
FRASK_API int path_exec_raw(const char* path, va_list args);

/**
 * path_exec() of an administrative utility, "/usr/local/oxa/admin/sbin/<name>".
 *
 * @return -1 for a name with a '/', after the message "Utility name '<name>' is invalid. Use only
 *         utility name without path."; otherwise the result of fork_execv_log()
 */
FRASK_API int util_exec(const char* name, const char* arg1, ...);

/** util_exec() with a whole vector, in which argv[0] is the caller's choice. */
FRASK_API int util_exec_args(const char* name, char* const argv[]);

/**
 * path_exec() of a library executable, "/usr/lib64/frask-9.0/<name>". Unlike that of util_exec(),
 * the name may hold a '/'.
 */
FRASK_API int util_libexec(const char* name, const char* arg1, ...);

/**
 * Runs a program silently: its three standard descriptors are "/dev/null", all others stay open.
 * argv[0] is the path, and at most 99 arguments follow; further ones are dropped without notice.
 *
 * Waits for any child of the process, so there should be no other. A failing fork is fatal
 * ("fork_execv: fork() failed").
 *
 * @return 1 when a signal ended the child, else its exit code; -1 when there was nothing to wait
 * for
 */
FRASK_API int fork_execv(const char* path, const char* arg1, ...);

/**
 * Runs a program with the given standard input and output, and passes what it writes to standard
 * error on through messlog2(), one message for each piece that is read (at most 4095 bytes).
 * Descriptors above 2 are closed in the child. A negative descriptor leaves the caller's in place.
 *
 * A child whose program cannot be executed reports "Error occured during execv():\n<system error>"
 * that way. Fatal: "fork_exec_fd pipe(): <system error>", "Error occured during fork():\n<system
 * error>".
 *
 * @return the exit code; -1 when the child was ended or stopped by a signal or could not be waited
 *         for, each with a message, and when fd_in is 0 or fd_out is 1 (all others are taken)
 */
FRASK_API int fork_execv_fd(int fd_in, int fd_out, const char* path, char* const argv[]);

/**
 * Runs a program with every descriptor of the caller. A failing fork is fatal ("Unable to fork").
 *
 * @return the raw status word, as waitpid() gives it; when the wait fails, that of the last child
 *         that was waited for here (0 at first)
 */
FRASK_API int do_exec(const char* path, char* const argv[]);

/**
 * Runs a shell command and writes a text to its standard input. A command that does not read it
 * all can end the caller by SIGPIPE, unless that is ignored.
 *
 * @return the exit code, which is 0 for a command that a signal ended; -1 when the command could
 *         not be started or did not take the whole text, each with a message, and, silently, when
 *         pclose() failed
 */
FRASK_API int popen_exec_with_input(const char* command, const char* input);

/**
 * Runs a shell command and captures its standard output.
 *
 * Failures are written to standard error: "popen_exec: failed to execute command: fork or pipe
 * calls failed, or cannot allocate memory", "popen_exec: failed to allocate memory", and
 * "popen_exec: warning: failed to allocate memory for command output buffer", where the text
 * becomes "" and nothing more is read: SIGPIPE ends a command that goes on writing.
 *
 * @param out  receives the text, also when pclose() failed; untouched when the command was not
 *             started or the first buffer could not be allocated
 * @return the exit code, which is 0 for a command that a signal ended; -1 on failure, errno set
 */
FRASK_API int popen_exec_getoutput(char** out, const char* command);

/**
 * Runs a shell command. A result other than 0 is reported through messlog2(), with the command's
 * output.
 *
 * @return the result of popen_exec_getoutput()
 */
FRASK_API int popen_exec(const char* command);

/**
 * Closes every descriptor from lowfd on: those that "/proc/self/fd" lists, or, where that fails or
 * lists more than 100 (more than a tenth of a table of at least 1000), every possible number. It
 * stands in for the routine of this name in newer C libraries, with the same type.
 */
#ifdef __cplusplus
/* NOLINTNEXTLINE(readability-redundant-declaration): not every C library has one */
FRASK_API void closefrom(int lowfd) noexcept;
#else
/* NOLINTNEXTLINE(readability-redundant-declaration) */
FRASK_API void closefrom(int lowfd);
#endif

/*
 * The steps of the above, for those who build on them.
 */

/**
 * Reads once from a descriptor, up to what fits, into a growing buffer: 4096 bytes at first, twice
 * the size whenever 2048 or fewer are left. One byte is always kept for a terminator, which the
 * caller writes. Failing to grow is fatal ("Cannot allocate memory"), so is a buffer of 2147483647
 * bytes that is full.
 *
 * At the end of the data, and after a failing read (reported on standard error as "fork_exec*:
 * read(pipe) failed: <system error>"; errno is then 0), the descriptor is closed and *fd set to -1.
 * EAGAIN changes nothing but errno.
 *
 * @param buf   *buf is NULL or a heap block of *size bytes
 * @param size  the allocated size; 0 at first
 * @param len   the bytes in use; 0 at first
 */
FRASK_API void read_to_buf(int* fd, char** buf, int* size, int* len);

/**
 * Makes the three descriptors standard input, output and error of this process, out of whatever
 * numbers they have, and closes all others. Failures are passed over. For a child before execv().
 */
FRASK_API void prepare_fds_to_exec(int fd_in, int fd_out, int fd_err);

/** closefrom() by "/proc/self/fd". @return 0, or -1 when not all of the list could be gone through
 */
FRASK_API int closefrom_through_proc(int lowfd);

/**
 * closefrom() by closing every number from getdtablesize() down to lowfd, both included, in one
 * call where the kernel has one for it. errno is restored.
 */
FRASK_API void closefrom_max(int lowfd);

/**
 * The number that an entry of "/proc/self/fd" stands for. errno is restored.
 *
 * @return -1 unless the text is a decimal number up to 2147483647 and nothing else: no sign, blank
 *         or leading zero; NULL gives -1 too
 */
FRASK_API int proc_pid_fd_str_to_int(const char* name);

#ifdef __cplusplus
}
#endif

#endif
