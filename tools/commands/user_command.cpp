// orvanta user: who may log in to the page.
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

#include "tools/commands/command.h"
#include "tools/serve/password_hash.h"
#include "tools/serve/random_id.h"
#include "tools/serve/users_file.h"

namespace tools {
namespace {

struct UserArguments {
  std::string file;
  std::string name;
  std::string role;
  bool password = false;
  bool key = false;
  bool noKey = false;
  bool json = false;
};

constexpr std::size_t kShortestPassword = 8;

// What is typed is not shown.
class Unseen {
 public:
  Unseen() {
    if (tcgetattr(STDIN_FILENO, &before_) == 0) {
      termios unseen = before_;
      unseen.c_lflag &= ~static_cast<tcflag_t>(ECHO);
      changed_ = tcsetattr(STDIN_FILENO, TCSAFLUSH, &unseen) == 0;
    }
  }
  ~Unseen() {
    if (changed_) {
      tcsetattr(STDIN_FILENO, TCSAFLUSH, &before_);
    }
  }
  Unseen(const Unseen&) = delete;
  Unseen& operator=(const Unseen&) = delete;

 private:
  termios before_{};
  bool changed_ = false;
};

std::string TypedLine(const char* question) {
  const bool asks = isatty(STDIN_FILENO) != 0;
  std::string line;
  {
    const Unseen unseen;
    if (asks) {
      std::fputs(question, stderr);
    }
    std::getline(std::cin, line);
    if (asks) {
      std::fputs("\n", stderr);
    }
  }
  return line;
}

// The first line of standard input; of a terminal it is asked for twice.
std::string NewPassword() {
  std::string password = TypedLine("password: ");
  if (password.size() < kShortestPassword) {
    throw std::runtime_error("a password has at least " + std::to_string(kShortestPassword) +
                             " characters; nothing was changed");
  }
  if (isatty(STDIN_FILENO) != 0 && TypedLine("once more: ") != password) {
    throw std::runtime_error("these were two different ones; nothing was changed");
  }
  return password;
}

void CheckName(const std::string& name) {
  if (!IsUserName(name)) {
    throw UsageError("NAME",
                     "\"" + name + "\" is none: expected letters, digits and ._-@+, at most 64");
  }
}

void ChangeKey(const UserArguments& arguments, User& user) {
  if (arguments.noKey) {
    user.key.clear();
  }
  if (arguments.key) {
    user.key = RandomId();
    std::printf("%s\n", user.key.c_str());
  }
}

void AddUser(const UserArguments& arguments) {
  CheckName(arguments.name);
  const std::string hash = HashedPassword(NewPassword());
  ChangeUsersFile(arguments.file, [&](UserList& users) {
    const auto [user, added] =
        users.try_emplace(arguments.name, User{*RoleOf(arguments.role), hash, ""});
    if (!added) {
      throw std::runtime_error("\"" + arguments.name + "\" is there already: see orvanta user set");
    }
    ChangeKey(arguments, user->second);
  });
}

User& Existing(UserList& users, const std::string& name) {
  const auto found = users.find(name);
  if (found == users.end()) {
    throw std::runtime_error("there is no user \"" + name + "\"");
  }
  return found->second;
}

void SetUser(const UserArguments& arguments) {
  const std::string hash = arguments.password ? HashedPassword(NewPassword()) : "";
  ChangeUsersFile(arguments.file, [&](UserList& users) {
    User& user = Existing(users, arguments.name);
    if (!hash.empty()) {
      user.password = hash;
    } else if (!IsHashedPassword(user.password)) {
      user.password = HashedPassword(user.password);  // a line of the older form has no role
    }
    user.role = arguments.role.empty() ? user.role : *RoleOf(arguments.role);
    ChangeKey(arguments, user);
  });
}

void RemoveUser(const UserArguments& arguments) {
  ChangeUsersFile(arguments.file, [&](UserList& users) {
    Existing(users, arguments.name);
    users.erase(arguments.name);
  });
}

void ListUsers(const UserArguments& arguments) {
  std::string warning;
  nlohmann::ordered_json rows = nlohmann::ordered_json::array();
  for (const auto& [name, user] : ReadUsersFile(arguments.file, &warning)) {
    const bool hashed = IsHashedPassword(user.password);
    rows.push_back({{"user", name},
                    {"role", WordOf(user.role)},
                    {"hashed", hashed},
                    {"key", !user.key.empty()}});
    if (!arguments.json) {
      std::printf("%-20s %-8s%s%s\n", name.c_str(), WordOf(user.role),
                  hashed ? "" : "  password as it is",
                  user.key.empty() ? "" : "  key for programs");
    }
  }
  if (arguments.json) {
    std::printf("%s\n", nlohmann::ordered_json{{"users", rows}}.dump(2).c_str());
  }
  if (!warning.empty()) {
    std::fprintf(stderr, "%s\n", warning.c_str());
  }
}

}  // namespace

void AddUserCommand(Command app, CommandResult& result) {
  const Command user = app.Add("user", "Who may log in to the page, and what they may do there");
  user.RequireCommand();
  auto arguments = std::make_shared<UserArguments>();
  const auto add = [&](const char* name, const char* help, void (*job)(const UserArguments&)) {
    const Command command = user.Add(name, help);
    command.AddOption("FILE", arguments->file, "the file of users").Required();
    command.Run([arguments, job, &result] {
      job(*arguments);
      result.status = 0;
    });
    return command;
  };
  const auto addNamed = [&](const char* name, const char* help, void (*job)(const UserArguments&)) {
    const Command command = add(name, help, job);
    command.AddOption("NAME", arguments->name).Required();
    return command;
  };
  const char* const roleHelp =
      "watch: live; play: recordings too, and export; operate: record, keep and move cameras too; "
      "manage: everything";
  const Command added = addNamed(
      "add", "Add one; the password is asked for, or standard input's first line", &AddUser);
  added.AddOption("--role", arguments->role, roleHelp).OneOf(RoleWords()).Required();
  added.AddFlag("--key", arguments->key,
                "give programs a key to log in with (Digest), and print it");
  const Command set = addNamed("set", "Change one", &SetUser);
  set.AddOption("--role", arguments->role, roleHelp).OneOf(RoleWords());
  set.AddFlag("--password", arguments->password,
              "ask for a new one; whoever is logged in with the old one is logged out");
  const Option key = set.AddFlag("--key", arguments->key, "give programs a new key, and print it");
  set.AddFlag("--no-key", arguments->noKey, "programs log in no more").Excludes(key);
  addNamed("remove", "Remove one, who is logged out", &RemoveUser);
  const Command list = add("list", "Who there is", &ListUsers);
  list.AddFlag("--json", arguments->json, "print one JSON object");
}

}  // namespace tools
