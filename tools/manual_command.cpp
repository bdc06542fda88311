// orvanta manual: writes the man pages and the shell completion that packages install.
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "tools/command.h"
#include "tools/manual.h"

namespace tools {
namespace {

void WriteFile(const std::filesystem::path& path, const std::string& text) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream file(path, std::ios::binary);
  file << text;
  file.close();
  if (!file) {
    throw std::runtime_error(path.string() + ": cannot be written");
  }
}

}  // namespace

void AddManualCommand(CLI::App& app, CommandResult& /*result*/) {
  auto folder = std::make_shared<std::string>();
  CLI::App* const manual =
      app.add_subcommand("manual", "Write the man pages and the bash completion into a folder");
  manual->add_option("DIR", *folder, "gets man1/*.1 and completions/orvanta")->required();
  manual->callback([folder, &app] {
    const std::filesystem::path root(*folder);
    const std::string name = app.get_name();
    WriteFile(root / "man1" / (name + ".1"), ManPage(app, app));
    for (const CLI::App* each : app.get_subcommands(
             [](const CLI::App* command) { return !command->get_group().empty(); })) {
      WriteFile(root / "man1" / (name + "-" + each->get_name() + ".1"), ManPage(app, *each));
    }
    WriteFile(root / "completions" / name, BashCompletion(app));
  });
}

}  // namespace tools
