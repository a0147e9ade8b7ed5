/**
 * @file
 * The clients' skeletons: client N's is the directory ".skel/N" below the virtual hosts directory
 * (HTTPD_VHOSTS_D). Its path has at most 4095 bytes. A longer one is cut for the report only, which
 * ends the process with status 1 before anything is touched ("Unable to check directory entry",
 * ENAMETOOLONG): what is left of it may be another client's, or the virtual hosts directory itself.
 *
 * The walks change the working directory of the process, so nothing else may run in it meanwhile,
 * and two installs for one client are not guarded against each other. They go down to any depth,
 * however few descriptors the process may open.
 */
#ifndef FRASK_TOOL_SKELETON_STORE_H
#define FRASK_TOOL_SKELETON_STORE_H

#include "log/api.h"
#include "tool/archive.h"

#ifdef __cplusplus
extern "C" {
#endif

/** The names that are removed wherever they stand in a skeleton, then a NULL. */
FRASK_API extern const char* const forbidden_subs_entry[2];

/**
 * Replaces a client's skeleton by what an archive holds: top-level entries other than the sections
 * go ("conf" too, but for the client "0"), remove_forbid_entries() cleans the rest, and all of it
 * becomes root's, files 0644 and directories 0755.
 *
 * ".skel" must exist. A failed extraction is reported and tolerated: the store then holds whatever
 * was unpacked. Any other failure is reported and ends the process with status 1, the store being
 * partly built; a "conf" that the client may not supply goes before all other entries. The working
 * directory is ".skel" afterwards.
 *
 * The id is taken as it is: one from a stranger has to be checked for being a plain directory name.
 *
 * @return 0
 */
FRASK_API int installSkeleton(const ArchiveDescriptor* archive, const char* client_id);

/**
 * Removes a client's skeleton; that there is none is no error. The id is taken as it is, as by
 * installSkeleton().
 *
 * @return 0; a failure is reported and ends the process with status 1
 */
FRASK_API int removeSkeleton(const char* client_id);

/**
 * Removes every forbidden entry in and below one entry of the current directory, which is the
 * current directory again afterwards. Directories whose names begin with "." are not entered, links
 * are not followed. A failure is reported and ends the process with status 1.
 */
FRASK_API void remove_forbid_entries(const char* path);

/** rm_tree(path, 1), for callers that walk trees. @return 0 */
FRASK_API int rm_entry(const char* path);

#ifdef __cplusplus
}
#endif

#endif
