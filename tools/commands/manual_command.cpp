// orvanta manual: writes the man pages and the shell completion that packages install.
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "tools/commands/command.h"
#include "tools/support/manual.h"

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

void AddManualCommand(Command app, CommandResult& /*result*/) {
  auto folder = std::make_shared<std::string>();
  const Command manual =
      app.Add("manual", "Write the man pages and the bash completion into a folder");
  manual.AddOption("DIR", *folder, "gets man1/*.1 and completions/orvanta").Required();
  manual.Run([folder, app] {
    const std::filesystem::path root(*folder);
    for (const auto& [name, page] : ManPages(app, ORVANTA_RELEASE_DATE)) {
      WriteFile(root / "man1" / (name + ".1"), page);
    }
    WriteFile(root / "completions" / "orvanta", BashCompletion(app));
  });
}

}  // namespace tools
