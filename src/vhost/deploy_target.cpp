#include <algorithm>
#include <utility>

#include "vhost/deploy_target.private.h"

namespace frask {

TargetFinder::TargetFinder(ConfinedDirectory host, const ExtractParams& params)
    : host_(std::move(host)), params_(params) {}

bool TargetFinder::find(const std::string& entry, Target& target) {
  const size_t end = std::min(entry.find('/'), entry.size());
  if (entry.compare(0, end, section_) != 0) enter(entry.substr(0, end));
  if (present_ == nullptr) return false;
  const bool remapped = present_ != &host_;
  const size_t dropped = remapped ? std::min(end + 1, entry.size()) : 0;
  target = {present_, entry.c_str() + dropped, remapped};
  return true;
}

void TargetFinder::enter(const std::string& section) {
  section_ = section;
  present_ = nullptr;
  elsewhere_.reset();
  host_.leaveAll();
  if (section == "httpsdocs") return;
  if (section == "cgi-bin" && params_.keepCgiBin) return;
  if (section == "error_docs" && params_.keepErrorDocs) return;
  if (section == "httpdocs")
    present_ = &elsewhere_.emplace(params_.docrootDir);
  else if (section == "cgi-bin")
    present_ = &elsewhere_.emplace(params_.cgiBinDir);
  else
    present_ = &host_;
}

}  // namespace frask
