#include "content_support.h"

#include <string.h>
#include <unistd.h>

#include "support/traced.h"

namespace vhosttest {

using testsupport::Outcome;

Outcome reported(const std::string& text) {
  return {"", text, kReturned << 8};
}

std::string failed(const std::string& call, const std::string& path, int error) {
  return call + "(\"" + path + "\"): " + strerror(error) + "\n";
}

Host::Host(const std::filesystem::path& parent) : scratch_(parent) {
  site = scratch_ / "site";
  documents = scratch_ / "documents";
  cgi = scratch_ / "cgi";
  std::filesystem::create_directories(site + "/private");
  std::filesystem::create_directories(documents);
  std::filesystem::create_directories(cgi);
}

DocrootCleanOptions Host::options() const {
  return {documents.c_str(), skip_httpdocs, keep_error_docs, keep_cgi_bin, cgi.c_str()};
}

Outcome Host::clean() const {
  return testsupport::in_child([this] {
    const DocrootCleanOptions given = options();
    exit(kReturned + clean_docroot(site.c_str(), &given));
  });
}

Outcome Host::delete_instance(const std::string& prefix, const std::string& description) const {
  testsupport::RunOptions run;
  run.input = description;
  const auto body = [&] {
    const DocrootCleanOptions given = options();
    wido_delete_instance(site.c_str(), &given, prefix.c_str());
    exit(kReturned);
  };
  return testsupport::in_child(body, run);
}

std::string description(const std::string& section, const Lines& files) {
  std::string text = "<INSTANCE-DATA><SECTION PREFIX=\"" + section + "\">";
  for (const std::string& file : files) text += "<FILE>" + file + "</FILE>";
  return text + "</SECTION></INSTANCE-DATA>";
}

Outcome run_traced(const Lines& strace_options, const Lines& arguments, const std::string& input) {
  Lines program{CONTENT_CALLS_PROGRAM};
  program.insert(program.end(), arguments.begin(), arguments.end());
  testsupport::RunOptions options;
  options.input = input;
  return testsupport::run_traced(strace_options, program, options);
}

Lines texts(const std::vector<std::filesystem::path>& paths) {
  Lines lines;
  lines.reserve(paths.size());
  for (const std::filesystem::path& path : paths) lines.push_back(path.native());
  return lines;
}

}  // namespace vhosttest
