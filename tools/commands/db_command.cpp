// orvanta db: the databases of a data folder, readable.
#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "cms/recording/database_reader.h"
#include "cms/recording/gap_log.h"
#include "cms/runtime/wide_text.h"
#include "tools/commands/command.h"
#include "tools/data/data_folder.h"
#include "tools/data/recording_folders.h"

namespace tools {
namespace {

using Json = nlohmann::ordered_json;

struct Databases {
  Json records = Json::array();
  Json events = Json::array();
  Json folders = Json::array();
  Json spans = Json::array();
  Json gaps = Json::array();
  std::vector<std::string> notes;  // what could not be read, or not all of it

  template <typename Row>
  void Note(const std::string& name, const cms::DatabaseContent<Row>& content) {
    if (content.state == cms::DatabaseState::kUnreadable) {
      notes.push_back(name + " cannot be read" + (content.rows.empty() ? "" : " to its end"));
    }
    if (content.tornBytes > 0) {
      notes.push_back(name + " ends with " + std::to_string(content.tornBytes) +
                      " bytes of a record that was not finished; the next one overwrites them");
    }
  }
};

void ReadFolder(const RecordingFolder& folder, Databases& databases) {
  const std::string name = cms::Utf8FromWide(folder.path);
  const auto records = cms::ReadRecordList(folder.path);
  databases.Note("the record list of " + name, records);
  for (const cms::RecordRow& row : records.rows) {
    databases.records.push_back({{"site", row.siteNumber},
                                 {"site_name", row.siteName},
                                 {"address", row.address},
                                 {"port", row.port},
                                 {"start", row.start},
                                 {"end", row.end},
                                 {"file", row.file}});
  }
  const auto span = cms::ReadFolderSpan(folder.path);
  databases.Note("the span of " + name, span);
  for (const cms::SpanRow& row : span.rows) {
    databases.spans.push_back({{"folder", name}, {"start", row.start}, {"end", row.end}});
  }
  if (records.state == cms::DatabaseState::kMissing) {
    databases.notes.push_back(name + " has no record list");
  }
  if (!folder.listed) {
    databases.notes.push_back(name + " is not reached from the folder list");
  }
}

Databases Read() {
  Databases databases;
  const auto events = cms::ReadEventList(0);
  databases.Note("the event list", events);
  for (const cms::EventRow& row : events.rows) {
    databases.events.push_back({{"site", row.siteNumber},
                                {"site_name", row.siteName},
                                {"address", row.address},
                                {"port", row.port},
                                {"channel", row.channel},
                                {"type", cms::TextOfEventType(row.type)},
                                {"pre_alarm", row.preAlarm},
                                {"start", row.start},
                                {"end", row.end}});
  }
  const auto gaps = cms::ReadGapLog(0);
  databases.Note("the gap log", gaps);
  for (const cms::GapRow& row : gaps.rows) {
    databases.gaps.push_back({{"site", row.siteNumber},
                              {"site_name", row.siteName},
                              {"address", row.address},
                              {"port", row.port},
                              {"from", row.from},
                              {"to", row.to},
                              {"cause", cms::GapCauseName(row.cause)},
                              {"error", row.error}});
  }
  const auto folders = cms::ReadFolderList(0);
  databases.Note("the folder list", folders);
  for (const cms::FolderRow& row : folders.rows) {
    databases.folders.push_back(row.folder);
  }
  for (const RecordingFolder& folder : FindRecordingFolders()) {
    ReadFolder(folder, databases);
  }
  return databases;
}

std::string RowTime(const Json& row, const char* name) {
  return cms::TextOfRecordTime(row.at(name).get<std::int64_t>());
}

void PrintTitle(const char* title, const Json& rows) {
  std::printf("%s: %zu\n", title, rows.size());
}

std::string Text(const Json& row, const char* name) {
  const auto text = row.at(name).get<std::string>();
  return text.empty() ? "-" : text;
}

void PrintDatabases(const Databases& databases) {
  PrintTitle("Records", databases.records);
  for (const Json& row : databases.records) {
    std::printf("  site %-4u %-20s %-20s  %s  (%s, %s:%u)\n", row.at("site").get<unsigned>(),
                RowTime(row, "start").c_str(), RowTime(row, "end").c_str(),
                Text(row, "file").c_str(), Text(row, "site_name").c_str(),
                Text(row, "address").c_str(), row.at("port").get<unsigned>());
  }
  PrintTitle("Events", databases.events);
  for (const Json& row : databases.events) {
    // Channels count from 1 for people, as `orvanta search` shows them, and from 0 in the record.
    std::printf("  site %-4u %-20s %-20s  %s of channel %u, %u s before it\n",
                row.at("site").get<unsigned>(), RowTime(row, "start").c_str(),
                RowTime(row, "end").c_str(), Text(row, "type").c_str(),
                row.at("channel").get<unsigned>() + 1, row.at("pre_alarm").get<unsigned>());
  }
  PrintTitle("Folders", databases.folders);
  for (const Json& row : databases.folders) {
    std::printf("  %s\n", row.get<std::string>().c_str());
  }
  PrintTitle("Spans", databases.spans);
  for (const Json& row : databases.spans) {
    std::printf("  %-20s %-20s  %s\n", RowTime(row, "start").c_str(), RowTime(row, "end").c_str(),
                Text(row, "folder").c_str());
  }
  PrintTitle("Gaps", databases.gaps);
  for (const Json& row : databases.gaps) {
    std::printf("  site %-4u %-20s %-20s  %s\n", row.at("site").get<unsigned>(),
                RowTime(row, "from").c_str(), RowTime(row, "to").c_str(),
                Text(row, "cause").c_str());
  }
  for (const std::string& note : databases.notes) {
    std::printf("Note: %s.\n", note.c_str());
  }
}

struct DbArguments {
  std::string data;
  bool json = false;
};

}  // namespace

void AddDbCommand(Command app, CommandResult& /*result*/) {
  auto arguments = std::make_shared<DbArguments>();
  const Command db = app.Add("db", "Show the databases of recordings");
  AddDataOption(db, arguments->data);
  db.AddFlag("--json", arguments->json, "print one JSON object");
  db.Run([arguments] {
    EnterDataFolder(arguments->data, DataFolderUse::kRead);
    const Databases databases = Read();
    if (arguments->json) {
      const Json report = {{"records", databases.records}, {"events", databases.events},
                           {"folders", databases.folders}, {"spans", databases.spans},
                           {"gaps", databases.gaps},       {"notes", databases.notes}};
      std::printf("%s\n", report.dump(2).c_str());
    } else {
      PrintDatabases(databases);
    }
  });
}

}  // namespace tools
