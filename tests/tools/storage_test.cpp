// What is kept, seen by a user: storage, protect, keep and remove.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "tests/recording/keep/recordings_maker.h"
#include "tests/support/shell.h"

namespace {

using nlohmann::json;
using testing::HasSubstr;

constexpr std::int64_t kNoon = 1'700'000'000;  // 2023-11-14T22:13:20Z
constexpr std::int64_t kDay = 86'400;

class Storage : public testing::Test {
 protected:
  Storage() {
    for (int day = 0; day < 4; ++day) {
      for (const std::uint32_t site : {1u, 2u}) {
        files_.push_back(maker_.Add(site, kNoon + day * kDay));
      }
    }
  }
  json Ask(const std::string& command, const std::string& arguments, int status = 0) const {
    const auto result =
        test::RunOrvanta(command + " --json --data " + maker_.Root() + " " + arguments);
    EXPECT_EQ(result.status, status) << arguments << result.errors;
    return json::parse(result.output, nullptr, false);
  }

  test::RecordingsMaker maker_;
  std::vector<std::string> files_;
};

TEST_F(Storage, FromWhatIsThereToWhatIsLeft) {
  json storage = Ask("storage", "");
  const std::uint64_t size = std::filesystem::file_size(files_[0]) + 11 * 32;
  EXPECT_EQ(storage["files"], 8);
  EXPECT_EQ(storage["bytes"], 8 * size);
  ASSERT_EQ(storage["sites"].size(), 2u);
  EXPECT_EQ(storage["sites"][1]["site"], 2);
  EXPECT_EQ(storage["sites"][1]["first"], "2023-11-14T22:13:20Z");
  EXPECT_EQ(storage["sites"][1]["days"].size(), 4u);
  EXPECT_EQ(storage["sites"][1]["days"][0]["bytes"], size);
  EXPECT_EQ(storage["disks"][0]["folder"], maker_.Root() + "/recordings");
  EXPECT_GT(storage["disks"][0]["free"], 0);
  EXPECT_EQ(storage["disks"][0]["full_at"], nullptr);  // nobody records

  json list = Ask("protect", files_[0]);
  ASSERT_EQ(list["protected"].size(), 1u);
  list = Ask("protect", "--site 2 --from 2023-11-15T00:00:00Z --to 2023-11-15T23:59:59Z");
  ASSERT_EQ(list["protected"].size(), 2u);
  EXPECT_EQ(list["protected"][1]["from"], "2023-11-15T00:00:00Z");
  EXPECT_EQ(Ask("storage", "")["protected_bytes"], 2 * size);
  Ask("remove", files_[0], 1);
  EXPECT_EQ(Ask("remove", "--dry-run --site 1")["removed"].size(), 3u);
  const json removed = Ask("remove", "--site 1 --before 2023-11-16T12:00:00Z");
  ASSERT_EQ(removed["removed"].size(), 1u);
  EXPECT_EQ(removed["removed"][0]["file"], files_[2]);
  EXPECT_EQ(removed["staying"][0]["why"], "protected");

  Ask("protect", "--off " + files_[0]);
  const json kept = Ask("keep", "--bytes " + std::to_string(4 * size));
  EXPECT_EQ(kept["removed"].size(), 3u);
  EXPECT_EQ(kept["removed"][0]["reason"], "bytes");
  EXPECT_EQ(kept["files"], 4);
  EXPECT_EQ(Ask("keep", "--days 30")["files"], 1);
  EXPECT_EQ(Ask("protect", "")["protected"].size(), 1u);
  EXPECT_EQ(maker_.Listed(), maker_.Present());
  EXPECT_EQ(maker_.Present(), std::multiset<std::string>({files_[3]}));
  const json found = Ask("search", "--from 2023-11-01T00:00:00Z --to 2023-12-01T00:00:00Z");
  ASSERT_EQ(found["spans"].size(), 1u);
  EXPECT_EQ(found["spans"][0]["files"], json({files_[3]}));

  const auto shown = test::RunOrvanta("storage --data " + maker_.Root());
  EXPECT_THAT(shown.output, HasSubstr("site 2"));
  EXPECT_THAT(shown.output, HasSubstr("protected"));
}

TEST_F(Storage, WhatIsMeantIsAskedFor) {
  const std::string data = " --data " + maker_.Root();
  for (const std::string& arguments : std::vector<std::string>{
           "remove" + data, "remove x --site 1" + data, "keep" + data, "keep --bytes 5X" + data,
           "protect --site 1" + data, "protect --off" + data,
           "protect --site 1 --from 2023-11-15 --to 2023-11-14" + data}) {
    const auto result = test::RunOrvanta(arguments);
    EXPECT_EQ(result.status, 2) << arguments;
    EXPECT_EQ(std::count(result.errors.begin(), result.errors.end(), '\n'), 1) << result.errors;
  }
  for (const std::string command : {"storage", "keep --days 1", "remove --site 1", "protect"}) {
    const auto result = test::RunOrvanta(command + " --data " + maker_.Root() + "/none");
    EXPECT_EQ(result.status, 1) << command;
    EXPECT_THAT(result.errors, HasSubstr("No such file")) << command;
  }
  EXPECT_EQ(maker_.Present().size(), files_.size());
}

}  // namespace
