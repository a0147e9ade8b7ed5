#include <algorithm>

#include "vhost/deploy_target.private.h"

namespace frask {

TargetFinder::TargetFinder(const VhostPath& host, const ExtractParams& params)
    : host_(host.fullPath.string()), params_(params) {}

bool TargetFinder::find(const std::string& entry, Target& target) {
  const size_t end = std::min(entry.find('/'), entry.size());
  if (entry.compare(0, end, section_) != 0) enter(entry.substr(0, end));
  if (!directory_) return false;
  const size_t dropped = remapped_ ? std::min(end + 1, entry.size()) : 0;
  target = {&*directory_, entry.c_str() + dropped, remapped_};
  return true;
}

void TargetFinder::enter(const std::string& section) {
  section_ = section;
  remapped_ = section == "httpdocs" || section == "cgi-bin";
  directory_.reset();
  if (section == "httpsdocs") return;
  if (section == "cgi-bin" && params_.keepCgiBin) return;
  if (section == "error_docs" && params_.keepErrorDocs) return;
  if (section == "httpdocs")
    directory_.emplace(params_.docrootDir);
  else
    directory_.emplace(section == "cgi-bin" ? params_.cgiBinDir : host_);
}

}  // namespace frask
