/**
 * @file
 * The content of virtual hosts, for the panel's tools: deploy a skeleton, empty a host, remove an
 * application, protect a file that a person edited.
 *
 * C++ exceptions leave these routines where it says so. A C program cannot catch them: there the
 * process ends, with the text on standard error when oxa_set_terminate() was called. None of them
 * may be called from several threads.
 */
#ifndef FRASK_VHOST_ENTRY_POINTS_H
#define FRASK_VHOST_ENTRY_POINTS_H

#include "log/api.h"

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Options of the routines below. A NULL text counts as "", in which nothing is found and nothing
 * can be created: a deployment that has documents or CGI programs to put there ends with an
 * exception. Any nonzero number counts as true.
 */
typedef struct DocrootCleanOptions {
  const char* docrootDir; /**< the document root: stands for the host's "httpdocs" */
  int skipHttpdocs;       /**< for setup_skeleton_on_subdomain() alone */
  int keepErrorDocs;      /**< leave "error_docs" alone */
  int keepCgiBin;         /**< leave the CGI directory alone */
  const char* cgiBinDir;  /**< the CGI directory: stands for the host's "cgi-bin" */
} DocrootCleanOptions;

/**
 * Deploys a skeleton into a site or sub-domain, whose directory is created when it is missing.
 *
 * The skeleton is ".skel/ID" below the compiled-in virtual hosts root, or, where that is missing,
 * silently ".skel/0". What exists already stays as it is: directories are merged into, all else is
 * reported on standard error and skipped, so that a second deployment restores what is missing and
 * nothing more; a section that the host has and the skeleton lacks is reported likewise. Links and
 * other special files are never deployed. In regular files "@domain_name@" becomes the site's name.
 * What is created for an entry of the skeleton gets its permission bits, the group "oxacln" (as far
 * as the caller may give it) and the caller's own user as owner. An original that cannot be read
 * gives an empty file, and where reading or writing fails on the way the file ends there, in
 * silence; a later deployment finds that it exists. One that another process has a write lease on
 * is waited for, where /proc is mounted and its target is missing. No symbolic link below the
 * host's directory, the document root or the CGI directory is passed: the entry is reported and
 * skipped.
 *
 * @param vhostDir    ROOT/SITE or ROOT/SITE/subdomains/NAME
 * @param mode        a SetupSkeletonMode; any other number selects nothing
 * @param skeletonId  NULL: nothing happens at all, the result is 0
 * @return 0
 * @throws std::runtime_error for a directory that is no virtual host, for a missing default
 *         skeleton and a missing group; std::filesystem::filesystem_error when the host's directory
 *         cannot be examined, or a directory cannot be created; std::bad_alloc. What was created
 *         before stays.
 */
FRASK_API int setup_skeleton(const char* vhostDir, int mode, const char* skeletonId,
                             const DocrootCleanOptions* options);

/**
 * setup_skeleton() for ROOT/DOMAIN/subdomains/SUBDOMAIN, without a check of the names; without
 * "httpdocs" when `options->skipHttpdocs` is set, else with every section.
 */
FRASK_API int setup_skeleton_on_subdomain(const char* domain, const char* subdomain,
                                          const char* skeletonId,
                                          const DocrootCleanOptions* options);

/**
 * Empties the document root, the CGI directory and "private" of a host; these themselves stay.
 *
 * Whatever cannot be listed or removed is reported on standard error, one line each, and stays.
 * Links are removed, never followed; a document root, a CGI directory or a "private" that is a link
 * itself is not emptied. All is listed before anything is removed: what others create meanwhile
 * stays, with its directory.
 *
 * @return 0, whatever happened
 * @throws std::bad_alloc
 */
FRASK_API int clean_docroot(const char* vhostDir, const DocrootCleanOptions* options);

/**
 * Removes the files of a site application, which an XML document on standard input lists, read to
 * its end, and the directories among them that are empty by then.
 *
 * The document is an INSTANCE-DATA element holding SECTION elements, whose attribute PREFIX is
 * "htdocs" or "cgi-bin", holding FILE elements, each with a path below `prefix` in that section.
 * The directory `prefix` of the document root goes as well once it is empty; an absolute `prefix`
 * is that directory itself. Failures of single entries are reported on standard error, and the work
 * goes on. No section is removed under its own name ("../private" is a path like any other), and no
 * symbolic link below them is passed.
 *
 * A document type, a comment or a processing instruction before the element makes the document a
 * wrong one; entities that expand without bound make it malformed. Nothing that it names is opened,
 * and the parser prints nothing: the exception is the report.
 *
 * @param prefix  where the application lies in its section; "." for the section itself. "/", like
 *                any absolute path here or in the document, leaves the host: the listed paths then
 *                count from the root of the file system, and no symbolic link is passed on the way
 * @throws std::runtime_error for a document that is malformed or breaks these rules; nothing has
 *         been removed then
 */
FRASK_API void wido_delete_instance(const char* vhostDir, const DocrootCleanOptions* options,
                                    const char* prefix);

/**
 * Keeps a copy of a file that is about to be generated anew, unless the file carries the banner of
 * generated files: PATH.saved_by_oxa, or with ".1", ".2" and so on behind it, the first free name.
 *
 * The copy has the file's mode, set-ID bits included, as the standard library's copy gives it, and
 * is the caller's own; its group is that of new files in its directory. The file itself stays in
 * place. Links are followed: call it for files in directories that only the panel writes to. Holes
 * become holes again, and a file of any size is looked through and copied with a piece of 256 KiB
 * in memory, so that it costs what its data costs. What is appended meanwhile to one that is longer
 * or has holes may be missing from the copy.
 *
 * A failed backup is logged through frask_log with priority 3 and does not stop the caller; the
 * name that was reserved for it stays, in most cases as an empty file. So it is with pipes and
 * devices, which cannot be copied and are neither opened nor waited for, unless one takes the
 * file's place at the last moment: then it is opened, but not read. A file that another process has
 * a write lease on is waited for, as long as /proc/sys/fs/lease-break-time lets it keep that; where
 * /proc is not mounted, the exception says EAGAIN instead.
 *
 * Deliberate: in a process whose standard input is closed every backup fails that way, because
 * descriptor 0 counts as a failure. Pinned by CopyIfNoDontedit.TakesDescriptor0ForAFailure.
 *
 * @param path  NULL and a missing file: nothing happens
 * @throws frask::SystemError when the file cannot be opened, for any other reason than that it is
 *         missing, or not be read while the banner is looked for; std::bad_alloc when there is no
 *         memory for that. Nothing has been created then.
 */
FRASK_API void copy_if_no_dontedit(const char* path);

/** The banner that generated files carry. @return a constant that lives as long as the process */
FRASK_API const char* get_dontedit_tag(void);

#ifdef __cplusplus
}
#endif

#endif
