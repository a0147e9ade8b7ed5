// What the tests of listing and removal share.
#ifndef TESTS_VHOST_CONTENT_SUPPORT_H
#define TESTS_VHOST_CONTENT_SUPPORT_H

#include <filesystem>
#include <string>
#include <vector>

#include "support/child.h"
#include "support/scratch.h"
#include "vhost/entry_points.h"

namespace vhosttest {

using Lines = std::vector<std::string>;

constexpr int kReturned = 40;

/// How a child ends whose routine came back, and that has written this to standard error.
testsupport::Outcome reported(const std::string& text);

/// "call("path"): cause", a line.
std::string failed(const std::string& call, const std::string& path, int error);

/// A host in "site", whose document root and CGI directory lie elsewhere: in "documents" and "cgi".
class Host {
 public:
  explicit Host(const std::filesystem::path& parent = std::filesystem::temp_directory_path());

  /// A path in the scratch directory that holds it all.
  std::string operator/(const std::string& name) const { return scratch_ / name; }
  const std::filesystem::path& path() const { return scratch_.path(); }
  DocrootCleanOptions options() const;

  /// In a child, which ends with kReturned and the result.
  testsupport::Outcome clean() const;
  /// The same, with this description on standard input.
  testsupport::Outcome delete_instance(const std::string& prefix,
                                       const std::string& description) const;

  int skip_httpdocs = 0;
  int keep_error_docs = 0;
  int keep_cgi_bin = 0;
  std::string site;       ///< as it is given to the routines
  std::string documents;  ///< likewise
  std::string cgi;        ///< likewise

 private:
  testsupport::ScratchDir scratch_;
};

/// The text of an instance description with one section of these files.
std::string description(const std::string& section, const Lines& files);

/// The program that runs one routine, under strace with these options.
testsupport::Outcome run_traced(const Lines& strace_options, const Lines& arguments,
                                const std::string& input = {});

/// The texts of paths.
Lines texts(const std::vector<std::filesystem::path>& paths);

}  // namespace vhosttest

#endif
