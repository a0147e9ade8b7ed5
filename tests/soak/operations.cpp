#include "soak/operations.h"

#include <array>
#include <utility>

namespace soak {
namespace {

constexpr const char* kNoType = "tembrix: Can't detect archive type";
constexpr const char* kMissing = "System error 2: No such file or directory";
constexpr const char* kWrongId = "tembrix: Error: parameter 'id' is not a valid client id";

const std::shared_ptr<const Listing>& store_of(size_t client, const Archive& archive) {
  return client == 0 ? archive.panel_store : archive.store;
}

std::vector<std::string> with_archive(std::vector<std::string> words, const Archive& archive) {
  words.insert(words.end(), {"--filename", archive.path});
  if (archive.forced) words.insert(words.end(), {"--force-type", archive.type});
  return words;
}

size_t drawn_below(size_t limit, std::minstd_rand& random) {
  return std::uniform_int_distribution<size_t>(0, limit - 1)(random);
}

size_t idle_client(const Stores& stores, std::minstd_rand& random) {
  size_t client = drawn_below(stores.size(), random);
  while (stores.is_busy(client)) client = (client + 1) % stores.size();
  return client;
}

}  // namespace

Choice::Choice(std::vector<Archive> archives, Archive default_skeleton, unsigned seed)
    : archives_(std::move(archives)),
      default_skeleton_(std::move(default_skeleton)),
      random_(seed),
      reader_(seed) {}

size_t Choice::client_to_read(const Stores& stores) {
  return idle_client(stores, reader_);
}

size_t Choice::below(size_t limit) {
  return drawn_below(limit, random_);
}

Operation Choice::install(size_t client) {
  const Archive& archive = any_archive();
  Operation operation;
  operation.kind = archive.unpacks ? "install a good archive" : "install a damaged archive";
  operation.words = with_archive({"--install-skel", "--id", std::to_string(client)}, archive);
  operation.last_line = "0";
  operation.reports = !archive.unpacks;
  operation.client = client;
  operation.store = store_of(client, archive);
  return operation;
}

Operation Choice::install_default(size_t client) const {
  return {"install the default skeleton",
          {"--install-default", "--id", std::to_string(client)},
          "0",
          0,
          false,
          client,
          store_of(client, default_skeleton_),
          false};
}

Operation Choice::test_archive() {
  const Archive& archive = any_archive();
  Operation operation;
  operation.words = with_archive({"--test-archive"}, archive);
  operation.reports = archive.reports || !archive.fits;
  if (!archive.exists) {
    operation.kind = "refuse";
    operation.exit_status = 1;
    operation.last_line = kMissing;
    return operation;
  }
  operation.kind = archive.fits ? "test a good archive" : "test a damaged archive";
  operation.exit_status = archive.fits ? 0 : 2;
  operation.last_line = std::to_string(operation.exit_status);
  return operation;
}

Operation Choice::test_support() {
  constexpr std::array<const char*, 4> kTypes{"zip", "tgz", "tar.gz", "tar"};
  return {"test support", {"--test-support", kTypes[below(kTypes.size())]}, "0", 0, false, {}, {},
          false};
}

Operation Choice::refusal(const Stores& stores) {
  const std::string other = std::to_string(below(stores.size()));
  switch (below(3)) {
    case 0:
      return {"refuse", {"--test-support", "rar"}, kNoType, 1, true, {}, {}, false};
    case 1:
      return {"refuse", {"--remove-skel", "--id", "../.skel/" + other}, kWrongId, 1, true, {}, {},
              true};
    default:
      return {
          "refuse", {"--install-default", "--id", other + "/httpdocs"}, kWrongId, 1, true, {}, {},
          true};
  }
}

Operation Choice::next(const Stores& stores) {
  const size_t client = idle_client(stores, random_);
  const size_t percent = below(100);
  if (percent < 45) return install(client);
  if (percent < 60)
    return {"remove", {"--remove-skel", "--id", std::to_string(client)}, "0", 0, false, client, {},
            true};
  if (percent < 70) return install_default(client);
  if (percent < 90) return test_archive();
  if (percent < 95) return test_support();
  return refusal(stores);
}

}  // namespace soak
