#include "app/platform/token_store.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "app/platform/keychain_token_store.h"
#include "tests/support/temp_dir.h"

namespace corvane {
namespace {

namespace fs = std::filesystem;
using testing::TempDir;

constexpr int errSecItemNotFound = -25300;
constexpr int errSecDuplicateItem = -25299;
const std::string key(TokenStore::deviceTokenKey);

// Behaves like the login Keychain for generic passwords: one item per
// (service, account), adding over an existing one fails. Switches make it
// fail the way a locked or refusing Keychain does.
class FakeKeychain final : public Keychain {
 public:
  std::map<std::pair<std::string, std::string>, KeychainItem> items;
  int addFailure = 0;                  // status every add returns, when not 0
  std::optional<Match> matchOverride;  // answer to every copyData, when set
  int calls = 0;

  int add(const KeychainItem& item) override {
    ++calls;
    if (addFailure != 0) return addFailure;
    const auto [it, added] = items.emplace(std::pair(item.service, item.account), item);
    return added ? 0 : errSecDuplicateItem;
  }
  Match copyData(const std::string& service, const std::string& account) override {
    ++calls;
    if (matchOverride) return *matchOverride;
    const auto it = items.find({service, account});
    if (it == items.end()) return {errSecItemNotFound, std::nullopt};
    return {0, it->second.data};
  }
  int remove(const std::string& service, const std::string& account) override {
    ++calls;
    return items.erase({service, account}) == 1 ? 0 : errSecItemNotFound;
  }
};

// The behaviour both stores promise, run against each.
struct FileStoreMaker {
  TempDir dir;
  std::unique_ptr<TokenStore> make() {
    return std::make_unique<FileTokenStore>(fs::path(dir.path()) / "config" / "Corvane");
  }
};
struct KeychainStoreMaker {
  std::unique_ptr<TokenStore> make() {
    return std::make_unique<KeychainTokenStore>(std::make_unique<FakeKeychain>());
  }
};

template <class Maker>
class TokenStoreContract : public ::testing::Test {
 protected:
  Maker maker_;
  std::unique_ptr<TokenStore> store_ = maker_.make();
};
using Makers = ::testing::Types<FileStoreMaker, KeychainStoreMaker>;
TYPED_TEST_SUITE(TokenStoreContract, Makers);

// Absent until saved; a save replaces, a remove (also a second one) leaves
// nothing; each key is an item of its own.
TYPED_TEST(TokenStoreContract, SaveReplacesAndRemoveForgetsOneKey) {
  EXPECT_EQ(this->store_->load(key), std::nullopt);
  ASSERT_TRUE(this->store_->save(key, "old-token"));
  ASSERT_TRUE(this->store_->save(key, "new-token"));
  ASSERT_TRUE(this->store_->save("other-key", "two"));
  EXPECT_EQ(this->store_->load(key), "new-token");
  this->store_->remove(key);
  this->store_->remove(key);
  EXPECT_EQ(this->store_->load(key), std::nullopt);
  EXPECT_EQ(this->store_->load("other-key"), "two");
}

TYPED_TEST(TokenStoreContract, TokensRoundTripByteForByte) {
  // The store neither checks nor trims the token's form.
  for (const std::string token : {"dt_\u00e9\u00df\u4e2d\U0001F511", " padded \n", "", "a=b/c+d"}) {
    SCOPED_TRACE(token);
    ASSERT_TRUE(this->store_->save(key, token));
    EXPECT_EQ(this->store_->load(key), token);
  }
}

// The Keychain item itself.

class KeychainTokenStoreTest : public ::testing::Test {
 protected:
  FakeKeychain* keychain_ = new FakeKeychain;  // owned by store_
  KeychainTokenStore store_{std::unique_ptr<Keychain>(keychain_)};
};

TEST_F(KeychainTokenStoreTest, SavedItemHasTheProductsAttributes) {
  ASSERT_TRUE(store_.save(key, "tok-1"));
  ASSERT_TRUE(store_.save(key, "tok-\u00e9"));
  ASSERT_EQ(keychain_->items.size(), 1u);
  EXPECT_EQ(keychain_->items.begin()->second,
            (KeychainItem{"corvane.mac", "device-token", "Corvane device token",
                          KeychainItem::Accessibility::afterFirstUnlock, "tok-\xc3\xa9"}));
}

// What a test's store does must never reach the user's item, and a query
// without an account (which would match every item of the service) is never
// made.
TEST_F(KeychainTokenStoreTest, AnotherServiceAndAnEmptyKeyNeverReachTheProductsItem) {
  ASSERT_TRUE(store_.save(key, "users-token"));
  const KeychainItem users = keychain_->items.begin()->second;
  FakeKeychain* own = new FakeKeychain;
  own->items = keychain_->items;  // a Keychain that holds the user's item
  KeychainTokenStore shared{std::unique_ptr<Keychain>(own), "corvane.mac.test"};
  ASSERT_TRUE(shared.save(key, "test-token"));
  EXPECT_EQ(shared.load(key), "test-token");
  shared.remove(key);
  EXPECT_EQ(shared.load(key), std::nullopt);
  ASSERT_EQ(own->items.size(), 1u);
  EXPECT_EQ(own->items.begin()->second, users);

  const int before = keychain_->calls;
  EXPECT_FALSE(store_.save("", "x"));
  EXPECT_EQ(store_.load(""), std::nullopt);
  store_.remove("");
  EXPECT_EQ(keychain_->calls, before);
  EXPECT_EQ(store_.load(key), "users-token");
}

TEST_F(KeychainTokenStoreTest, FailedSaveLeavesNoItem) {
  ASSERT_TRUE(store_.save(key, "old"));
  keychain_->addFailure = -25308;  // errSecInteractionNotAllowed: locked
  EXPECT_FALSE(store_.save(key, "new"));
  EXPECT_TRUE(keychain_->items.empty());
  EXPECT_EQ(store_.load(key), std::nullopt);
}

TEST_F(KeychainTokenStoreTest, LoadFoldsEveryUnusableAnswerIntoAbsent) {
  const struct {
    const char* what;
    Keychain::Match match;
  } cases[] = {
      {"failure status with data", {-25293, "tok"}},
      {"success without a data object", {0, std::nullopt}},
      {"a truncated UTF-8 sequence", {0, std::string("tok\xe2\x82")}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    keychain_->matchOverride = c.match;
    EXPECT_EQ(store_.load(key), std::nullopt);
  }
  keychain_->matchOverride = Keychain::Match{0, "tok"};
  EXPECT_EQ(store_.load(key), "tok");
}

// The file store's own promises.

class FileTokenStoreTest : public ::testing::Test {
 protected:
  TempDir temp_;
  fs::path dir_ = fs::path(temp_.path()) / "config" / "Corvane";
  FileTokenStore store_{dir_};
};

// However the directory came to exist, it ends up the user's alone.
TEST_F(FileTokenStoreTest, TokenFileIsPrivateInPrivateDirectories) {
  for (const bool existed : {false, true}) {
    SCOPED_TRACE(existed ? "existing directory" : "new directory");
    fs::remove_all(dir_.parent_path());
    const mode_t oldMask = ::umask(022);
    if (existed) fs::create_directories(dir_);
    const bool saved = store_.save(key, "tok");
    ::umask(oldMask);
    ASSERT_TRUE(saved);
    EXPECT_EQ(fs::symlink_status(dir_ / "device-token").permissions(), fs::perms(0600));
    EXPECT_EQ(fs::symlink_status(dir_).permissions(), fs::perms::owner_all);
    if (!existed) {
      EXPECT_EQ(fs::symlink_status(dir_.parent_path()).permissions(), fs::perms::owner_all);
    }
    // Only the token file: no temporary copy of the token is left beside it.
    EXPECT_EQ(std::distance(fs::directory_iterator(dir_), fs::directory_iterator()), 1);
  }
}

TEST_F(FileTokenStoreTest, FileThatIsNotUTF8IsNoToken) {
  fs::create_directories(dir_);
  std::ofstream(dir_ / "device-token", std::ios::binary) << "tok\xc0\x80";
  EXPECT_EQ(store_.load(key), std::nullopt);
}

TEST_F(FileTokenStoreTest, KeysThatLeaveTheDirectoryHaveNoItem) {
  fs::create_directories(dir_);
  std::ofstream(dir_.parent_path() / "outside") << "secret";
  using namespace std::string_literals;
  for (const std::string& bad : {""s, "."s, ".."s, "../outside"s, "a/b"s, "a\0b"s}) {
    SCOPED_TRACE(bad);
    EXPECT_FALSE(store_.save(bad, "tok"));
    EXPECT_EQ(store_.load(bad), std::nullopt);
    store_.remove(bad);
  }
  EXPECT_TRUE(fs::exists(dir_.parent_path() / "outside"));
  EXPECT_EQ(std::distance(fs::directory_iterator(dir_), fs::directory_iterator()), 0);
}

TEST_F(FileTokenStoreTest, FailedSaveLeavesNoItem) {
  // A 250-character name is a valid file, but the temporary file beside it
  // ("<name>.XXXXXX") is too long to create, so the write itself fails after
  // the old token has gone — the Keychain's order, on purpose.
  const std::string longKey(250, 'k');
  fs::create_directories(dir_);
  std::ofstream(dir_ / longKey) << "old";
  ASSERT_EQ(store_.load(longKey), "old");
  EXPECT_FALSE(store_.save(longKey, "new"));
  EXPECT_EQ(store_.load(longKey), std::nullopt);
  EXPECT_EQ(std::distance(fs::directory_iterator(dir_), fs::directory_iterator()), 0);
}

TEST_F(FileTokenStoreTest, DirectoryBlockedByAFileFailsTheSave) {
  std::ofstream(fs::path(temp_.path()) / "config") << "not a directory";
  EXPECT_FALSE(store_.save(key, "tok"));
  EXPECT_EQ(store_.load(key), std::nullopt);
}

}  // namespace
}  // namespace corvane
