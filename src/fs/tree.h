/**
 * @file
 * Whole directory trees: change of owner and modes, removal.
 *
 * No symbolic link below the given path is followed, and neither is one in its last component: an
 * entry that is swapped for a link in the middle of a walk does not lead outside the tree. A slash
 * behind a link asks for the directory that it leads to (POSIX, Pathname Resolution), at each step
 * of the walk; that directory can be changed and emptied so, but not removed. What vanishes in the
 * middle of a walk is passed over, so two processes may remove one tree.
 *
 * The walks change into each directory of the tree and restore the working directory before they
 * return, so they must not run beside other threads. They go down to any depth, however few
 * descriptors the process may open, and use no stack for it. errno is as the last failing system
 * call left it, and is unchanged when none failed.
 *
 * Messages go through messlog2() and name the given path itself as it was given, and what lies
 * below it by the single name of the entry.
 */
#ifndef FRASK_FS_TREE_H
#define FRASK_FS_TREE_H

#include <sys/types.h>

#include "log/api.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Gives every regular file and directory below `path` an owner and a group, each directory after
 * its contents; links, devices, pipes and sockets are left alone.
 *
 * A `path` that does not exist is reported, and the routine returns (errno is ENOENT). Any other
 * failure is reported and ends the process with status 1.
 *
 * @param path         a directory, a regular file (changed itself), or a link (left alone)
 * @param owner,group  as for chown(2), so that -1 leaves the present one
 * @param include_top  nonzero: a directory `path` is changed too, and not only what is below it
 */
FRASK_API void chown_tree(const char* path, uid_t owner, gid_t group, int include_top);

/** Gives modes as chown_tree() gives owners: one to regular files, another to directories. */
FRASK_API void chmod_tree(const char* path, mode_t file_mode, mode_t dir_mode, int include_top);

/** chown_tree(), which takes set-id bits away, then chmod_tree(). @return 0 */
FRASK_API int tree_set_perms(const char* path, uid_t owner, gid_t group, mode_t file_mode,
                             mode_t dir_mode, int include_top);

/**
 * Removes everything below `path`, of whatever type, and `path` itself; never ends the process.
 *
 * A link or a regular file is removed whatever `remove_top` is. A `path` of another type than
 * these and a directory cannot be removed ("Unable to open dir").
 *
 * @param remove_top     nonzero: a directory `path` goes too, and is not only emptied
 * @param stop_on_error  nonzero: each directory on the way up from a first failure is left at once,
 *                       after an attempt to remove it, which is reported as well
 * @return 0 when all of it is gone, also when there was no `path` (errno is then ENOENT); 1 after
 *         reports of all that failed
 */
FRASK_API int rm_tree_aux(const char* path, int remove_top, int stop_on_error);

/** rm_tree_aux() that stops at the first error and then ends the process with status 1. */
FRASK_API void rm_tree(const char* path, int remove_top);

#ifdef __cplusplus
}
#endif

#endif
