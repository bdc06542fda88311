// orvanta status: how the recorder that runs on a data folder fares.
#include <cstdio>
#include <exception>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "tools/commands/command.h"
#include "tools/data/data_folder.h"
#include "tools/service/status_json.h"
#include "tools/service/status_socket.h"

namespace tools {
namespace {

constexpr int kAnswerMs = 10'000;
constexpr int kSomethingWrong = 1;
constexpr int kNobodyAnswers = 2;

struct StatusArguments {
  std::string data;
  bool json = false;
  bool metrics = false;
};

int Status(const StatusArguments& arguments) {
  std::string answer;
  nlohmann::ordered_json status;
  try {
    answer = AskRecorder(arguments.data, arguments.metrics ? "metrics" : "status", kAnswerMs);
    status = arguments.metrics ? status : nlohmann::ordered_json::parse(answer);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "orvanta status: %s\n", error.what());
    return kNobodyAnswers;
  }
  if (arguments.metrics) {
    std::fputs(answer.c_str(), stdout);
    return 0;
  }
  std::fputs(arguments.json ? answer.c_str() : StatusText(status).c_str(), stdout);
  return status.value("ok", false) ? 0 : kSomethingWrong;
}

}  // namespace

void AddStatusCommand(Command app, CommandResult& result) {
  auto arguments = std::make_shared<StatusArguments>();
  const Command status = app.Add(
      "status",
      "Ask a running recorder how it fares: ends with 0 when all is well, 1 when something is not "
      "recorded, 2 when no recorder answers");
  AddDataOption(status, arguments->data);
  const Option json = status.AddFlag("--json", arguments->json, "print one JSON object");
  status.AddFlag("--metrics", arguments->metrics, "print text for Prometheus").Excludes(json);
  status.Run([arguments, &result] { result.status = Status(*arguments); });
}

}  // namespace tools
