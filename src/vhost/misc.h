/**
 * @file
 * Deployment of a skeleton, names of backup files, and small helpers.
 */
#ifndef FRASK_VHOST_MISC_H
#define FRASK_VHOST_MISC_H

#include <iosfwd>
#include <string>

#include "log/api.h"
#include "vhost/layout.h"

namespace frask {

/**
 * The worker behind the plain setup_skeleton(), which says what it does and throws.
 *
 * @param skeletonId  NULL: nothing happens
 */
FRASK_API void setup_skeleton(const VhostPath& host, SetupSkeletonMode mode, const char* skeletonId,
                              const ExtractParams& params);

/**
 * The names that a backup of a file may have, in the order in which they are tried:
 * FILE.saved_by_oxa, FILE.saved_by_oxa.1, FILE.saved_by_oxa.2 and so on, 2147483647 of them.
 */
class FRASK_API BackupFileGenerator {
 public:
  static const std::string savedSuffix;  ///< ".saved_by_oxa"

  /** @param file  the file that is to be backed up; it is not looked at */
  explicit BackupFileGenerator(const std::string& file);

  /** Whether there is a name left. */
  bool hasNext() const noexcept;
  /** The next name. Only when hasNext(). */
  std::string next();

 private:
  std::string prefix_;
  int number_ = 0;
};

/**
 * The whole content of a file, byte for byte; "" for a directory, which holds none.
 *
 * @throws SystemError "PATH: open failed" (ExSystemError<2> for a missing file), "PATH: read
 * failed"
 */
FRASK_API std::string readFile(const std::string& path);

/**
 * All that remains in a stream's buffer; "" from a stream that has failed already.
 *
 * A failed read counts as the end, and sets the stream's bad state. The state is otherwise left
 * alone, at the end as well.
 */
FRASK_API std::string readFile(std::istream& in);

/**
 * The decimal identifier of the container that the process runs in, "" outside any.
 *
 * @throws SystemError when "/proc/self/status" cannot be read
 */
FRASK_API std::string getCtID();

/**
 * Writes a byte array as two preprocessor definitions, NAME_LEN and NAME_DATA, eight bytes a line.
 *
 * Deliberate: where one byte remains behind a full line, that line has no continuation. Pinned by
 * PrintCArray.BreaksTheDefinitionBeforeASingleLastByte.
 *
 * @param name  NULL sets the stream's bad state
 * @param len   below 1: the length alone is written
 */
FRASK_API void printCArray(std::ostream& os, const char* name, const unsigned char* data, int len);

}  // namespace frask

#endif
