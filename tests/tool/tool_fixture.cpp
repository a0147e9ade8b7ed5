#include "tool/tool_fixture.h"

#include <unistd.h>

#include <filesystem>

#include "support/private_mounts.h"

using testsupport::Outcome;

const std::string kUsage =
    "Tembrix (Skeletons Manager) Utility\n"
    "\n"
    "Usage:\n"
    "\n"
    "  tembrix --test-support <type> \n"
    "  tembrix --test-archive --filename <filename> [ --force-type <type> ]\n"
    "  tembrix --install-skel --filename <filename> [ --force-type <type> ] --id <client_id>\n"
    "  tembrix --remove-skel --id <client_id> \n"
    "  tembrix --install-default --id <client_id> \n"
    "\n"
    "  Archive type detection is performed by analisys of its filename extension. \n"
    "  Accepted extensions are '.zip', '.tgz', '.tar.gz' and '.tar'.\n"
    "  Also you may specify it manually via <type> parameter of --force-type option \n"
    "  (possible values: 'zip', 'tgz', 'tar.gz', 'tar'). \n"
    "  <client_id> is the number from the Frask's database that identifies a user account.\n";

void ToolTest::SetUp() {
  testsupport::enter_private_mounts();
  testsupport::write_file("/etc/oxa/oxa.conf", "HTTPD_VHOSTS_D /var/www/vhosts\n");
  std::filesystem::create_directories("/var/www/vhosts/.skel");
}

Outcome ToolTest::tembrix(const std::vector<std::string>& words,
                          const testsupport::RunOptions& options) {
  std::vector<std::string> command{TEMBRIX_PROGRAM};
  command.insert(command.end(), words.begin(), words.end());
  return testsupport::run(command, options);
}

Outcome ToolTest::prepared(const std::function<void()>& prepare, std::vector<std::string> words,
                           const std::string& program) {
  std::vector<char*> argv{const_cast<char*>(program.c_str())};
  argv.reserve(words.size() + 2);
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  return testsupport::in_child([&] {
    prepare();
    execv(program.c_str(), argv.data());
    _exit(98);
  });
}

void ToolTest::shell(const std::string& script) const {
  testsupport::RunOptions options;
  options.directory = at("");
  const Outcome outcome = testsupport::run({"/bin/sh", "-ec", script}, options);
  ASSERT_EQ(outcome.exit_code(), 0) << script << "\n" << outcome;
}

void StoreTest::pack(const std::string& script) const {
  shell("rm -rf skel skel.zip; mkdir skel; cd skel\n" + script +
        "\ntar -cf ../skel.tar . ; tar -czf ../skel.tgz .; zip -qry ../skel.zip . || [ $? = 12 ]");
}

Outcome fatal(const std::string& text) {
  const std::string report = "tembrix: " + text + "\n";
  return {report, report, 1 << 8};
}

Outcome answer(int result, const std::string& text_before) {
  return {text_before + std::to_string(result) + "\n", "", (result & 0xff) << 8};
}
