#include "core/protocol/wire_json.h"

#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <string>
#include <tuple>

#include "core/protocol/app_info.h"

namespace corvane {
namespace {

SyncedMessage plainMessage() {
  return {"g1", "+15551234567", "hi", false, "2023-11-14T22:13:20.123Z", "iMessage", {}, {}, {}};
}

DirectoryEntry fullEntry() {
  return {"alex@example.test",        "Alex A", "Alex", "A", "Al", "iMessage",
          "2023-11-14T22:13:20.123Z", true,     12};
}

TEST(WireJSONTest, EncodesKeysInDeclaredOrderWithNullOrOmittedOptionals) {
  const std::tuple<const char*, std::string, const char*> cases[] = {
      {"message without reaction or reply", encodeJSON(plainMessage()),
       R"({"guid":"g1","handle":"+15551234567","text":"hi","isFromMe":false,)"
       R"("sentAt":"2023-11-14T22:13:20.123Z","service":"iMessage","attachments":[],)"
       R"("reaction":null,"replyToGuid":null})"},
      {"message with everything",
       encodeJSON(SyncedMessage{"g2", "h", "t", true, "s", "SMS",
                                {AttachmentKind::image, AttachmentKind::file}, "Loved", "g1"}),
       R"({"guid":"g2","handle":"h","text":"t","isFromMe":true,"sentAt":"s","service":"SMS",)"
       R"("attachments":["image","file"],"reaction":"Loved","replyToGuid":"g1"})"},
      {"directory entry without names",
       encodeJSON(DirectoryEntry{"+1555", {}, {}, {}, {}, "SMS", "t", false, 3}),
       R"({"handle":"+1555","displayName":null,"firstName":null,"lastName":null,)"
       R"("nickname":null,"service":"SMS","lastMessageAt":"t","lastFromMe":false,)"
       R"("messageCount":3})"},
      {"failed ack", encodeJSON(OutboxAck{SendStatus::failed, "not delivered"}),
       R"({"status":"failed","error":"not delivered"})"},
      {"status without own handles",
       encodeJSON(AgentStatusRequest{"0.1.0", "macOS 14.5", true, PermissionState::granted,
                                     PermissionState::denied, false, {}}),
       R"({"appVersion":"0.1.0","osVersion":"macOS 14.5","fullDiskAccess":true,)"
       R"("contactsAccess":"granted","automationAccess":"denied","messagesReady":false})"},
      {"pair response without user name", encodeJSON(PairResponse{"tok", "dev-1", {}}),
       R"({"token":"tok","deviceId":"dev-1"})"},
      {"config",
       encodeJSON(AgentConfig{1, {"+1555"}, 30, 14, 60, {true, {"me@example.test"}}, "pro"}),
       R"({"protocolVersion":1,"rosterHandles":["+1555"],"backfillDays":30,)"
       R"("directoryDays":14,"pollIntervalSec":60,)"
       R"("selfChannel":{"enabled":true,"handles":["me@example.test"]},"plan":"pro"})"},
  };
  for (const auto& [name, encoded, expected] : cases) EXPECT_EQ(encoded, expected) << name;
}

template <class T>
void expectRoundTrip(const T& value) {
  EXPECT_EQ(decodeJSON<T>(encodeJSON(value)), value) << encodeJSON(value);
}

TEST(WireJSONTest, EveryRecordDecodesWhatItEncodes) {
  expectRoundTrip(PairRequest{"ABC123", "Kim's Mac", "macOS 14.5", "mac-0.1.0"});
  expectRoundTrip(PairResponse{"tok", "dev-1", "Kim"});
  expectRoundTrip(AgentConfig{1, {"+1555", "a@b.test"}, 30, 14, 60, {true, {"me"}}, "free"});
  const std::vector<AttachmentKind> kinds = {AttachmentKind::video, AttachmentKind::audio,
                                             AttachmentKind::sticker};
  expectRoundTrip(SyncRequest{
      {fullEntry()},
      {plainMessage(), SyncedMessage{"g2", "h", "t\n\"q\" ✓", true, "s", "SMS", kinds, "Liked", "g1"}},
      9007199254740993});
  expectRoundTrip(OutboxResponse{{{"1", "h", "t", OutboxItem::Kind::user},
                                  {"2", "me", "reply", OutboxItem::Kind::assistant}}});
  expectRoundTrip(OutboxAck{SendStatus::failed, "timeout"});
  expectRoundTrip(SelfMessageRequest{"g", "note", "2023-11-14T22:13:20.123Z"});
  expectRoundTrip(AgentStatusRequest{"1", "Linux 6.1", true, PermissionState::denied,
                                     PermissionState::granted, true, std::vector<std::string>{}});
  expectRoundTrip(ErrorBody{"bad_code", "That code has expired"});
}

TEST(WireJSONTest, MissingOrNullOptionalsDecodeAsAbsent) {
  const auto entry = decodeJSON<DirectoryEntry>(
      R"({"handle":"h","displayName":null,"service":"SMS","lastMessageAt":"t",)"
      R"("lastFromMe":false,"messageCount":1})");
  EXPECT_FALSE(entry.displayName);
  EXPECT_FALSE(entry.firstName);

  const auto status = decodeJSON<AgentStatusRequest>(
      R"({"appVersion":"1","osVersion":"x","fullDiskAccess":true,"contactsAccess":"granted",)"
      R"("automationAccess":"unknown","messagesReady":true,"ownHandles":null})");
  EXPECT_FALSE(status.ownHandles);

  EXPECT_EQ(decodeJSON<ErrorBody>("{}"), ErrorBody{});
  EXPECT_EQ(decodeJSON<OutboxAck>(R"({"status":"sent"})"), (OutboxAck{SendStatus::sent, {}}));
  // A message without attachments, whichever way the key says so.
  for (const char* attachments : {"", R"(,"attachments":null)", R"(,"attachments":[])"}) {
    const std::string text = std::string(R"({"guid":"g","handle":"h","text":"t","isFromMe":true,)"
                                         R"("sentAt":"s","service":"iMessage")") +
                             attachments + "}";
    const auto message = decodeJSON<SyncedMessage>(text);
    EXPECT_TRUE(message.attachments.empty()) << text;
    EXPECT_FALSE(message.reaction) << text;
  }
}

TEST(WireJSONTest, UnknownKeysAreIgnored) {
  const auto answer = decodeJSON<SelfMessageResponse>(R"({"queued":2,"note":{"x":[1,2]}})");
  EXPECT_EQ(answer.queued, 2);
  const auto config = decodeJSON<AgentConfig>(
      R"({"protocolVersion":1,"rosterHandles":[],"backfillDays":1,"directoryDays":2,)"
      R"("pollIntervalSec":3,"selfChannel":{"enabled":false,"handles":[],"extra":1},)"
      R"("plan":"p","future":true})");
  EXPECT_EQ(config.plan, "p");
}

// Decoding failures must say which key and why: the text ends up in the
// "unexpected response shape (...)" message a user or developer reads.
TEST(WireJSONTest, DecodingFailuresNameTheKeyAndTheReason) {
  const std::string config =
      R"({"protocolVersion":1,"rosterHandles":["a"],"backfillDays":1,"directoryDays":2,)"
      R"("pollIntervalSec":3,"selfChannel":{"enabled":true,"handles":[]})";
  // The whole config with one part replaced.
  const auto replaced = [&](const std::string& part, const std::string& by) {
    std::string text = config + R"(,"plan":"p"})";
    return text.replace(text.find(part), part.size(), by);
  };
  const std::tuple<const char*, std::function<void()>, const char*> cases[] = {
      {"missing required key", [&] { decodeJSON<AgentConfig>(config + "}"); },
       R"(key "plan": missing)"},
      {"null required key", [&] { decodeJSON<AgentConfig>(config + R"(,"plan":null})"); },
       R"(key "plan": null, but a value is required)"},
      {"wrong type in nested object",
       [&] { decodeJSON<AgentConfig>(replaced(R"("enabled":true)", R"("enabled":"yes")")); },
       R"(key "selfChannel.enabled": expected a boolean, found a string)"},
      {"unknown outbox kind",
       [] {
         decodeJSON<OutboxResponse>(R"({"items":[{"id":"1","handle":"h","text":"t","kind":"user"},)"
                                    R"({"id":"2","handle":"h","text":"t","kind":"robot"}]})");
       },
       R"(key "items[1].kind": unknown value "robot")"},
      {"fraction where an integer belongs",
       [] { decodeJSON<SyncResponse>(R"({"accepted":1.5,"dropped":0})"); },
       R"(key "accepted": expected an integer, found the number 1.5)"},
      {"truncated JSON", [] { decodeJSON<OutboxResponse>(R"({"items":[)"); },
       "not valid JSON (syntax error at byte 11)"},
  };
  for (const auto& [name, decode, expected] : cases) {
    try {
      decode();
      ADD_FAILURE() << name << ": decoded";
    } catch (const DecodingError& e) {
      EXPECT_STREQ(e.what(), expected) << name;
    }
  }
}

TEST(WireJSONTest, WholeFloatsAreIntegersAndIgnoredBodyAcceptsAnyJSONValue) {
  EXPECT_EQ(decodeJSON<SyncResponse>(R"({"accepted":3.0,"dropped":-2})"), (SyncResponse{3, -2}));
  for (const char* text : {"{}", "[]", "null", "17", R"("ok")", R"({"ok":true})"}) {
    EXPECT_NO_THROW(decodeJSON<IgnoredBody>(text)) << text;
  }
}

TEST(WireJSONTest, InvalidUTF8IsReplacedRatherThanFailingTheEncoding) {
  std::string encoded;
  ASSERT_NO_THROW(encoded = encodeJSON(SelfMessageRequest{"g", "ab\xff" "cd", "s"}));
  EXPECT_EQ(decodeJSON<SelfMessageRequest>(encoded).text, "ab\uFFFD" "cd");
}

// Upload batches are written straight to text; the bytes must be exactly
// those of the document, for every byte value and each way a field is absent.
TEST(WireJSONTest, UploadBatchTextIsTheDocumentsByteForByte) {
  std::string everyASCII, everyByte;
  for (int c = 0; c < 128; ++c) everyASCII += static_cast<char>(c);
  for (int c = 0; c < 256; ++c) everyByte += static_cast<char>(c);
  const std::string tricky[] = {"",
                                "plain",
                                std::string("nul\0inside", 10),
                                "\x01\x1f\b\f\n\r\t\x7f",
                                "q\"b\\s/",
                                "Zo\u00eb \U0001F600 \u2028",
                                "bad \xff\xfe end",
                                "cut \xe2\x82",
                                "\xed\xa0\x80 surrogate",
                                everyASCII,
                                everyByte};
  SyncRequest request;
  request.cursor = std::numeric_limits<std::int64_t>::min();
  request.directory = {fullEntry(), DirectoryEntry{"+1555", {}, {}, {}, {}, "SMS", "t", false,
                                                   std::numeric_limits<std::int64_t>::max()}};
  for (const auto& text : tricky) {
    SyncedMessage m = plainMessage();
    m.text = text;
    m.guid = text;
    m.reaction = text.empty() ? std::nullopt : std::optional<std::string>("liked");
    m.replyToGuid = text.size() > 5 ? std::optional<std::string>(text) : std::nullopt;
    m.attachments = {AttachmentKind::image, AttachmentKind::video, AttachmentKind::audio,
                     AttachmentKind::sticker, AttachmentKind::file};
    request.messages.push_back(m);
    DirectoryEntry e = fullEntry();
    e.displayName = text;
    request.directory.push_back(e);
  }
  EXPECT_EQ(encodeJSON(request), dumpWireJSON(WireJSON(request)));
  EXPECT_EQ(encodeJSON(SyncRequest{}), R"({"directory":[],"messages":[],"cursor":0})");
}

// The bundle's short version wins; without a bundle (as here) the build's.
TEST(AppInfoTest, VersionIsTheBundlesShortVersionElseTheBuilds) {
  EXPECT_EQ(AppInfo::versionFrom("2.3.1"), "2.3.1");
  EXPECT_EQ(AppInfo::versionFrom(std::nullopt), CORVANE_VERSION);
  EXPECT_EQ(AppInfo::versionFrom(""), CORVANE_VERSION);
  EXPECT_EQ(AppInfo::version(), CORVANE_VERSION);
}

}  // namespace
}  // namespace corvane
