#pragma once
// Test support for the system setting commands (header only): an executor whose settings host is
// a temporary tree, with an invented account directory, and readers of what the commands left in
// the tree. One thread.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>

#include "authorization/UserDirectory.h"
#include "foundation/PropertyList.h"
#include "tests/support/ExecutorTestSupport.h"

namespace krv::test {

class InventedAccounts final : public auth::UserDirectory {
 public:
  void add(const auth::UserAccount& account) { m_accounts[account.uid] = account; }
  Result<std::optional<auth::UserAccount>> accountOf(uid_t uid) const override {
    auto found = m_accounts.find(uid);
    if (found == m_accounts.end()) return std::optional<auth::UserAccount>();
    return std::optional<auth::UserAccount>(found->second);
  }
  Result<std::optional<auth::UserAccount>> accountNamed(const std::string& name) const override {
    for (const auto& [uid, account] : m_accounts) {
      if (account.name == name) return std::optional<auth::UserAccount>(account);
    }
    return std::optional<auth::UserAccount>();
  }
  Result<bool> isAdministrator(const auth::UserAccount&) const override { return false; }

 private:
  std::map<uid_t, auth::UserAccount> m_accounts;
};

class SettingsCommandTest : public testing::Test {
 protected:
  SettingsCommandTest() : m_accounts(std::make_shared<InventedAccounts>()) {
    // Programs may run from the tree: its top must pass the runner's safety rule.
    ::chmod(m_tree.root().c_str(), 0755);
    m_client.executor().setSystemSettingsHost({HostRoot(m_tree.root()), m_accounts});
  }

  CommandResult run(std::uint32_t code, Array arguments, uid_t requestingUser = 0) {
    auto command = KRVPrivilegedCommand::privilegedCommandWithCode(code, std::move(arguments));
    command->setUserIdentification(requestingUser);
    return m_client.executor().executeCommand(*command);
  }
  static void expectCode(const CommandResult& result, std::int64_t code) {
    expectResult(result, kCommandErrorDomain, code);
  }
  static void expectPosix(const CommandResult& result, int code) {
    expectResult(result, kPosixErrorDomain, code);
  }

  // Makes the folders of a relative path below the tree.
  std::string folders(const std::string& relative) const {
    std::string made;
    std::stringstream parts(relative);
    for (std::string part; std::getline(parts, part, '/');) {
      made += (made.empty() ? "" : "/") + part;
      if (!m_tree.exists(made)) m_tree.makeFolder(made);
    }
    return path(relative);
  }
  // A file below the tree, with the folders it needs.
  std::string file(const std::string& relative, const std::string& contents,
                   mode_t mode = 0644) const {
    const std::size_t slash = relative.rfind('/');
    if (slash != std::string::npos) folders(relative.substr(0, slash));
    return m_tree.makeFile(relative, contents, mode);
  }
  std::string contentsOf(const std::string& relative) const {
    std::ifstream stream(path(relative), std::ios::binary);
    std::stringstream contents;
    contents << stream.rdbuf();
    return contents.str();
  }
  // The property list a command left in the tree (an empty dictionary when there is none).
  Dictionary plistAt(const std::string& relative) const {
    const std::string bytes = contentsOf(relative);
    Result<Value> value =
        plist::read(std::span(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()));
    if (!value || value->asDictionary() == nullptr) return {};
    return *value->asDictionary();
  }
  struct stat statusOf(const std::string& relative) const {
    struct stat status {};
    ::lstat(path(relative).c_str(), &status);
    return status;
  }
  std::string path(const std::string& relative) const { return m_tree.path(relative); }

  TestFileTree m_tree;
  std::shared_ptr<InventedAccounts> m_accounts;
  ExecutorWithPipe m_client;
};

// The value under a path of keys in nested dictionaries, or nothing.
inline const Value* valueAt(const Dictionary& dictionary, std::initializer_list<const char*> keys) {
  const Dictionary* level = &dictionary;
  const Value* value = nullptr;
  for (const char* key : keys) {
    if (level == nullptr) return nullptr;
    value = level->find(key);
    if (value == nullptr) return nullptr;
    level = value->asDictionary();
  }
  return value;
}

inline std::int64_t integerAt(const Dictionary& dictionary,
                              std::initializer_list<const char*> keys) {
  const Value* value = valueAt(dictionary, keys);
  return value != nullptr && value->asNumber() != nullptr ? value->asNumber()->integerValue()
                                                          : -999;
}

}  // namespace krv::test
