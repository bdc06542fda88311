// orvanta storage: what recordings take, and when their disks will be full.
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

#include "cms/recording/keep/storage_use.h"
#include "tools/commands/command.h"
#include "tools/data/data_folder.h"
#include "tools/support/byte_text.h"
#include "tools/support/time_text.h"

namespace tools {
namespace {

using Json = nlohmann::ordered_json;

constexpr double kDaySeconds = 86'400;

struct StorageArguments {
  std::string data;
  bool json = false;
};

Json StorageJson(const cms::StorageReport& report) {
  Json sites = Json::array();
  for (const cms::SiteUse& site : report.sites) {
    Json days = Json::array();
    for (const cms::DayUse& day : site.days) {
      days.push_back({{"day", day.day}, {"files", day.files}, {"bytes", day.bytes}});
    }
    sites.push_back({{"site", site.site},
                     {"files", site.files},
                     {"bytes", site.bytes},
                     {"protected_bytes", site.protectedBytes},
                     {"first", UtcTime(site.first)},
                     {"last", UtcTime(site.last)},
                     {"bytes_per_second", site.bytesPerSecond},
                     {"days", std::move(days)}});
  }
  Json disks = Json::array();
  for (const cms::DiskUse& disk : report.disks) {
    disks.push_back({{"folder", disk.folder},
                     {"total", disk.total},
                     {"free", disk.free},
                     {"files", disk.files},
                     {"bytes", disk.bytes},
                     {"protected_bytes", disk.protectedBytes},
                     {"bytes_per_second", disk.bytesPerSecond},
                     {"full_at", disk.fullAt == 0 ? Json() : Json(UtcTime(disk.fullAt))}});
  }
  return {{"files", report.files},
          {"bytes", report.bytes},
          {"protected_bytes", report.protectedBytes},
          {"lost_records", report.lostRecords},
          {"sites", std::move(sites)},
          {"disks", std::move(disks)},
          {"errors", report.errors}};
}

std::string PerDay(double bytesPerSecond) {
  return TextOfBytes(static_cast<std::uint64_t>(bytesPerSecond * kDaySeconds)) + " a day";
}

void PrintStorage(const cms::StorageReport& report) {
  for (const cms::SiteUse& site : report.sites) {
    std::printf("site %-4u %7llu files %10s  %s to %s, %s", site.site,
                static_cast<unsigned long long>(site.files), TextOfBytes(site.bytes).c_str(),
                LocalTime(site.first).c_str(), LocalTime(site.last).c_str(),
                PerDay(site.bytesPerSecond).c_str());
    std::printf(site.protectedBytes > 0 ? ", %s protected\n" : "\n",
                TextOfBytes(site.protectedBytes).c_str());
    for (const cms::DayUse& day : site.days) {
      std::printf("  %s  %7llu files %10s\n", day.day.c_str(),
                  static_cast<unsigned long long>(day.files), TextOfBytes(day.bytes).c_str());
    }
  }
  for (const cms::DiskUse& disk : report.disks) {
    std::printf("disk of %s: %s in %llu recordings, %s of %s free, %s%s\n", disk.folder.c_str(),
                TextOfBytes(disk.bytes).c_str(), static_cast<unsigned long long>(disk.files),
                TextOfBytes(disk.free).c_str(), TextOfBytes(disk.total).c_str(),
                PerDay(disk.bytesPerSecond).c_str(),
                disk.fullAt == 0
                    ? ""
                    : (", full at " + LocalTime(disk.fullAt) + " if nothing is removed").c_str());
  }
  if (report.lostRecords > 0) {
    std::printf("%llu records name files that are gone; orvanta repair drops them.\n",
                static_cast<unsigned long long>(report.lostRecords));
  }
}

int Storage(const StorageArguments& arguments) {
  const cms::StorageReport report = cms::StorageUse(AbsolutePath(arguments.data));
  if (report.disks.empty() && !report.errors.empty()) {
    throw std::runtime_error(report.errors.front());
  }
  if (arguments.json) {
    std::printf("%s\n", StorageJson(report).dump(2).c_str());
  } else {
    PrintStorage(report);
  }
  for (const std::string& error : report.errors) {
    std::fprintf(stderr, "orvanta storage: %s\n", error.c_str());
  }
  return report.errors.empty() ? 0 : 1;
}

}  // namespace

void AddStorageCommand(Command app, CommandResult& result) {
  auto arguments = std::make_shared<StorageArguments>();
  const Command storage =
      app.Add("storage", "Show what recordings take, by site and day, and when it will be full");
  AddDataOption(storage, arguments->data);
  storage.AddFlag("--json", arguments->json, "print one JSON object; its times are in UTC");
  storage.Run([arguments, &result] { result.status = Storage(*arguments); });
}

}  // namespace tools
