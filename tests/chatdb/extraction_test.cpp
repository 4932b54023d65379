#include <gtest/gtest.h>

#include <map>
#include <tuple>

#include "core/chatdb/chat_db.h"
#include "core/chatdb/typed_stream.h"
#include "core/protocol/iso_time.h"
#include "core/text/unicode.h"
#include "tests/support/temp_dir.h"
#include "tools/chatdb-gen/chat_db_builder.h"

namespace corvane {
namespace {

using chatdbgen::ChatDbBuilder;
using chatdbgen::ChatDbSchema;
using chatdbgen::DateUnit;
using chatdbgen::MessageSpec;
using chatdbgen::TextStorage;
using testing::TempDir;
using TypedStream::decodeAttributedBody;
using TypedStream::encodeAttributedBody;
using Extracted = std::vector<ChatDB::ExtractedMessage>;

const std::string kAlex = "+14155550100";

Bytes bytes(std::string_view s) { return Bytes(s.begin(), s.end()); }

std::vector<std::int64_t> rowids(const Extracted& all) {
  std::vector<std::int64_t> out;
  for (const auto& e : all) out.push_back(e.rowid);
  return out;
}

std::vector<std::string> texts(const Extracted& all) {
  std::vector<std::string> out;
  for (const auto& e : all) out.push_back(e.message.text);
  return out;
}

// A database with one one-to-one chat, read back through ChatDB, recording
// every statement ChatDB prepares.
class ExtractionTest : public ::testing::Test {
 protected:
  explicit ExtractionTest(ChatDbSchema schema = ChatDbSchema::full(),
                          DateUnit unit = DateUnit::nanoseconds)
      : builder(dir.file("chat.db"), std::move(schema), unit), chat(builder.oneToOne(kAlex)) {}

  Extracted after(std::int64_t cursor = 0) {
    ChatDB& db = open();
    return db.messagesAfter({{chat, kAlex}}, cursor, db.maxRowId());
  }

  ChatDB& open() {
    db = std::make_unique<ChatDB>(builder.path(), "US");
    statements.clear();
    db->setStatementObserver([this](const std::string& sql) { statements.push_back(sql); });
    return *db;
  }

  TempDir dir;
  ChatDbBuilder builder;
  std::int64_t chat;
  std::unique_ptr<ChatDB> db;
  std::vector<std::string> statements;
};

class MinimalSchemaTest : public ExtractionTest {
 protected:
  MinimalSchemaTest() : ExtractionTest(ChatDbSchema::minimal()) {}
};

TEST_F(MinimalSchemaTest, MessagesStillReadWithDefaults) {
  const auto m = builder.message(chat, MessageSpec{.text = "hello", .threadGuid = "T"});
  builder.attachment(builder.message(chat, MessageSpec{.text = "\uFFFC"}), {.mime = "image/jpeg"});
  const auto all = after();
  ASSERT_EQ(all.size(), 2u);
  EXPECT_EQ(all[0].rowid, m);
  EXPECT_EQ(all[0].message.service, "iMessage");
  EXPECT_EQ(all[0].message.replyToGuid, std::nullopt);
  EXPECT_EQ(all[1].message.attachments, std::vector{AttachmentKind::image});
}

class NoAttachmentTableTest : public ExtractionTest {
 protected:
  NoAttachmentTableTest()
      : ExtractionTest([] { auto s = ChatDbSchema::minimal(); s.attachmentTable = false; return s; }(),
                       DateUnit::seconds) {}
};

TEST_F(NoAttachmentTableTest, ReadsMessagesWithoutAttachmentsAndSecondsDates) {
  builder.message(chat, MessageSpec{.text = "hi", .dateMs = 1700000000000});
  builder.message(chat, MessageSpec{.text = "\uFFFC"});
  const auto all = after();
  ASSERT_EQ(all.size(), 1u);
  EXPECT_EQ(all[0].sentAtMs, 1700000000000);
  EXPECT_EQ(statements.size(), 2u);  // maxRowId and the message statement
}

TEST_F(ExtractionTest, PlainMessageFields) {
  const auto rowid = builder.message(
      chat, MessageSpec{.text = "  hi there\n", .fromMe = true, .dateMs = 1700000000123,
                        .service = "SMS", .threadGuid = "p:0/THREAD", .guid = "GUID-1"});
  const auto all = after();
  ASSERT_EQ(all.size(), 1u);
  EXPECT_EQ(all[0].rowid, rowid);
  EXPECT_EQ(all[0].sentAtMs, 1700000000123);
  EXPECT_EQ(all[0].message, (SyncedMessage{.guid = "GUID-1", .handle = kAlex, .text = "hi there",
                                           .isFromMe = true, .sentAt = "2023-11-14T22:13:20.123Z",
                                           .service = "SMS", .replyToGuid = "THREAD"}));
}

TEST_F(ExtractionTest, TapBacks) {
  // associated_message_type, text, reaction (none: the row is dropped), text sent
  const std::tuple<std::int64_t, std::string, std::optional<std::string>, std::string> cases[] = {
      {2000, "", "loved", "Loved a message"},
      {2006, "Reacted \U0001F389 to \u201Chi\u201D", "reacted",
       "Reacted \U0001F389 to \u201Chi\u201D"},
      {3001, "", std::nullopt, ""},
      {1000, "sticker", std::nullopt, ""},
      {-1, "x", std::nullopt, ""},
  };
  const auto target = builder.message(chat, "original");
  std::vector<std::pair<std::string, std::optional<std::string>>> expected, seen;
  for (const auto& [code, text, reaction, expectedText] : cases) {
    const auto tapback =
        builder.message(chat, MessageSpec{.text = text,
                                          .amt = code,
                                          .associatedGuid = "p:0/" + builder.guidOf(target),
                                          .threadGuid = "IGNORED"});
    builder.attachment(tapback, {.mime = "image/png"});
    if (reaction) expected.emplace_back(expectedText, reaction);
  }
  for (const auto& e : after(target)) {
    seen.emplace_back(e.message.text, e.message.reaction);
    EXPECT_TRUE(e.message.attachments.empty()) << "reactions carry no attachments";
    EXPECT_EQ(e.message.replyToGuid, builder.guidOf(target));
  }
  EXPECT_EQ(seen, expected);
}

TEST(StripAssociatedGuidTest, PartIndexPrefixes) {
  const std::string long120(120, 'g');
  const std::pair<std::optional<std::string>, std::optional<std::string>> cases[] = {
      {"p:12/ABC", "ABC"},
      {"p:x/ABC", "p:x/ABC"},
      {"p:ABC", "p:ABC"},
      {"bp:ABC", "ABC"},
      {"p:3/", "p:3/"},
      {"ABC", "ABC"},
      {"", std::nullopt},
      {std::nullopt, std::nullopt},
      {"p:1/" + long120, std::string(100, 'g')},
      {"p:/" + long120, std::string(100, 'g')},
  };
  for (const auto& [input, expected] : cases) {
    EXPECT_EQ(ChatDB::stripAssociatedGuid(input), expected) << input.value_or("<none>");
  }
}

TEST(CleanTextTest, RemovesObjectReplacementAndNulAndTrims) {
  const std::pair<std::optional<std::string>, std::string> cases[] = {
      {std::nullopt, ""},
      {"\uFFFC", ""},
      {" \uFFFC hello \uFFFC\n", "hello"},
      {"keep \uFFFD", "keep \uFFFD"},
      {std::string("\0 a\uFFFC\0b \0", 10), "ab"},
      {"a\uFFFC \uFFFCb", "a b"},
  };
  for (const auto& [input, expected] : cases) EXPECT_EQ(ChatDB::cleanText(input), expected);
}

TEST(AttachmentKindTest, FirstMatchingRuleWins) {
  using K = AttachmentKind;
  struct Case {
    std::optional<std::string> mime, uti, transfer;
    bool sticker;
    std::optional<K> expected;
  };
  const Case cases[] = {
      {"image/png", "public.png", "x.pluginPayloadAttachment", true, std::nullopt},
      {"image/png", std::nullopt, "photo.png", true, K::sticker},
      {"IMAGE/HEIC", std::nullopt, std::nullopt, false, K::image},
      {"video/mp4", "public.jpeg", std::nullopt, false, K::video},
      {"audio/x-m4a", std::nullopt, std::nullopt, false, K::audio},
      {"application/octet-stream", "public.heif", std::nullopt, false, K::image},
      {std::nullopt, "com.apple.quicktime-movie", std::nullopt, false, K::video},
      {std::nullopt, "com.apple.coreaudio-format", std::nullopt, false, K::audio},
      {"text/vcard", "public.vcard", "card.vcf", false, K::file},
      {std::nullopt, std::nullopt, std::nullopt, false, K::file},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(ChatDB::attachmentKind(c.mime, c.uti, c.transfer, c.sticker), c.expected)
        << c.mime.value_or("-") << " " << c.uti.value_or("-");
  }
}

// Dropped rows are removed after the attachments are read; each message that
// stays must keep its own attachments, never a neighbour's. Plugin payloads
// are no attachment, and the attachment flag decides whether any are read.
TEST_F(ExtractionTest, DroppedRowsDoNotShiftAttachmentsOntoOtherMessages) {
  using K = AttachmentKind;
  builder.message(chat, MessageSpec{});
  builder.message(chat, MessageSpec{.text = "event", .itemType = 1});
  builder.message(chat, MessageSpec{.text = "empty guid", .guid = ""});
  const auto photo = builder.message(chat, MessageSpec{.text = "\uFFFC"});
  builder.attachment(photo, {.mime = "image/png"});
  builder.attachment(photo, {.mime = "video/quicktime"});
  builder.message(chat, MessageSpec{.text = " \uFFFC "});
  const auto liked = builder.message(chat, MessageSpec{.amt = 2001});
  const auto memo = builder.message(chat, MessageSpec{.text = "memo \uFFFC"});
  builder.attachment(memo, {.mime = "audio/amr"});
  builder.message(chat, MessageSpec{.text = "\uFFFC"});
  const auto link = builder.message(chat, MessageSpec{.text = "https://example.test"});
  builder.attachment(link, {.mime = "", .transferName = "ABC.pluginPayloadAttachment"});
  builder.attachment(builder.message(chat, MessageSpec{.text = "\uFFFC"}),
                     {.transferName = "X.pluginpayloadattachment"});
  const auto flaggedOff =
      builder.message(chat, MessageSpec{.text = "a", .cacheHasAttachments = SQLValue(0)});
  builder.attachment(flaggedOff, {.mime = "image/png"});
  const auto flagNull =
      builder.message(chat, MessageSpec{.text = "b", .cacheHasAttachments = SQLValue()});
  builder.attachment(flagNull, {.mime = "audio/amr"});
  const auto all = after();
  EXPECT_EQ(rowids(all), (std::vector{photo, liked, memo, link, flaggedOff, flagNull}));
  EXPECT_EQ(texts(all), (std::vector<std::string>{"", "Liked a message", "memo",
                                                  "https://example.test", "a", "b"}));
  std::vector<std::vector<K>> kinds;
  for (const auto& e : all) kinds.push_back(e.message.attachments);
  EXPECT_EQ(kinds, (std::vector<std::vector<K>>{
                       {K::image, K::video}, {}, {K::audio}, {}, {}, {K::audio}}));
}

TEST_F(ExtractionTest, AttachmentsAreLoadedInChunksOf500) {
  builder.transaction([&] {
    for (int i = 0; i < 1200; ++i) {
      const auto m = builder.message(chat, MessageSpec{.text = "\uFFFC"});
      builder.attachment(m, {.mime = i % 2 ? "image/gif" : "audio/mpeg"});
    }
  });
  const auto all = after();
  ASSERT_EQ(all.size(), 1200u);
  for (std::size_t i = 0; i < all.size(); ++i) {
    ASSERT_EQ(all[i].message.attachments,
              std::vector{i % 2 ? AttachmentKind::image : AttachmentKind::audio})
        << i;
  }
  ASSERT_EQ(statements.size(), 5u);  // maxRowId, messages, three attachment chunks
  EXPECT_EQ(std::vector(statements.begin() + 2, statements.end()),
            (std::vector{db->attachmentSQL(500), db->attachmentSQL(500), db->attachmentSQL(200)}));
}

TEST_F(ExtractionTest, DatesInSecondsAndNanosecondsAndMissingDates) {
  const auto secs = builder.message(chat, MessageSpec{.text = "s", .rawDate = 700000000});
  const auto nanos = builder.message(chat, MessageSpec{.text = "n", .rawDate = 700000000000000000});
  builder.message(chat, MessageSpec{.text = "zero", .rawDate = 0});
  builder.message(chat, MessageSpec{.text = "null", .nullDate = true});
  const auto all = after();
  ASSERT_EQ(rowids(all), (std::vector{secs, nanos}));
  EXPECT_EQ(all[0].sentAtMs, 1678307200000);
  EXPECT_EQ(all[1].sentAtMs, 1678307200000);
  EXPECT_EQ(all[0].message.sentAt, isoString(1678307200000));
}

// Dates are formatted a day at a time: every time of day, days that come back
// out of order and a date before 1970 read exactly as isoString has them.
TEST_F(ExtractionTest, EveryDateReadsAsItsIsoString) {
  const std::int64_t day = 86400000, midnight = 1700000000000 - 1700000000000 % day;
  const std::int64_t times[] = {midnight,       midnight + 1,   midnight + day - 1,
                                midnight + 45296789, midnight + day, midnight - 1,
                                midnight + 3 * day + 7, midnight + 999};
  for (const std::int64_t ms : times) builder.message(chat, MessageSpec{.text = "t", .dateMs = ms});
  builder.message(chat, MessageSpec{.text = "1969", .rawDate = -978307201});
  const auto all = after();
  ASSERT_EQ(all.size(), std::size(times) + 1);
  EXPECT_EQ(all.back().sentAtMs, -1000);
  for (const auto& e : all) EXPECT_EQ(e.message.sentAt, isoString(e.sentAtMs)) << e.sentAtMs;
}

TEST_F(ExtractionTest, LongFieldsAreClippedWithoutSplittingCharacters) {
  std::string text;
  while (utf16Length(text) < 25000) text += "\U0001F469\u200D\U0001F4BB ";
  builder.message(chat, MessageSpec{.text = text,
                                    .service = "AVeryLongServiceName-Extended",
                                    .guid = std::string(150, 'G')});
  const auto all = after();
  ASSERT_EQ(all.size(), 1u);
  const auto& m = all[0].message;
  EXPECT_LE(utf16Length(m.text), 20000u);
  EXPECT_GE(utf16Length(m.text), 20000u - 6);
  EXPECT_EQ(text.compare(0, m.text.size(), m.text), 0);
  EXPECT_TRUE(isValidUTF8(m.text));
  EXPECT_EQ(m.guid, std::string(100, 'G'));
  EXPECT_EQ(m.service, "AVeryLongServiceName");
}

// Another program writes this database, so a column may hold any storage
// class: numbers read as their decimal text, blobs as UTF-8 (or not at all),
// broken text repaired.
TEST_F(ExtractionTest, ColumnsOfOtherStorageClassesReadAsText) {
  // column, stored value, the field it fills (nothing: the row is dropped)
  const std::tuple<std::string, SQLValue, std::optional<std::string>> cases[] = {
      {"guid", SQLValue(42), "42"},
      {"guid", SQLValue(2.5), "2.5"},
      {"guid", SQLValue(bytes("G-blob")), "G-blob"},
      {"guid", SQLValue(bytes("G\xFF")), std::nullopt},
      {"text", SQLValue(7), "7"},
      {"text", SQLValue(bytes(" blob text ")), "blob text"},
      {"text", SQLValue("broken \xFF"), "broken \uFFFD"},
      {"service", SQLValue(3), "3"},
      {"thread_originator_guid", SQLValue(bytes("p:1/T")), "T"},
  };
  for (const auto& [column, value, expected] : cases) {
    const auto rowid = builder.message(chat, MessageSpec{.text = "t", .threadGuid = "X"});
    builder.db().run("UPDATE message SET " + column + " = ? WHERE ROWID = ?", {value, rowid});
    const auto all = after(rowid - 1);
    ASSERT_EQ(all.size(), expected ? 1u : 0u) << column;
    if (!expected) continue;
    const SyncedMessage& m = all[0].message;
    const std::map<std::string, std::optional<std::string>> fields = {
        {"guid", m.guid}, {"text", m.text}, {"service", m.service},
        {"thread_originator_guid", m.replyToGuid}};
    EXPECT_EQ(fields.at(column), expected) << column;
  }
}

TEST_F(ExtractionTest, TextColumnWinsAndIsNotRetriedWhenItCleansToEmpty) {
  const auto body = encodeAttributedBody;
  builder.message(chat, MessageSpec{.text = "column", .attributedBody = body("body")});
  const auto photo =
      builder.message(chat, MessageSpec{.text = "\uFFFC", .attributedBody = body("body")});
  builder.attachment(photo, {.mime = "image/png"});
  builder.message(chat, MessageSpec{.text = "", .attributedBody = body("from body")});
  builder.message(chat, MessageSpec{.attributedBody = Bytes{'j', 'u', 'n', 'k'}});
  builder.message(chat, MessageSpec{.text = "  from the archive \uFFFC",
                                    .storage = TextStorage::attributedBody});
  EXPECT_EQ(texts(after()),
            (std::vector<std::string>{"column", "", "from body", "from the archive"}));
}

TEST_F(ExtractionTest, OnlyMappedChatsAndOnlyTheCursorWindow) {
  const auto stranger = builder.oneToOne("+14155550199");
  const auto m1 = builder.message(chat, "one");
  builder.message(stranger, "not on the roster");
  const auto m3 = builder.message(chat, "three");
  const auto m4 = builder.message(chat, "four");

  ChatDB& db = open();
  const ChatDB::ChatMap chats = {{chat, kAlex}};
  EXPECT_EQ(rowids(db.messagesAfter(chats, m1, m3)), std::vector{m3});
  EXPECT_EQ(rowids(db.messagesAfter(chats, 0, m4)), (std::vector{m1, m3, m4}));

  statements.clear();
  EXPECT_TRUE(db.messagesAfter(chats, m4, m4).empty());
  EXPECT_TRUE(db.messagesAfter(chats, m4, m1).empty());
  EXPECT_TRUE(db.messagesAfter({}, 0, m4).empty());
  EXPECT_TRUE(db.messagesSince({}, 0, m4).empty());
  EXPECT_TRUE(statements.empty()) << "nothing to read must not touch the database";
}

TEST_F(ExtractionTest, MessagesSinceFiltersOnTheConvertedDate) {
  builder.message(chat, MessageSpec{.text = "old", .dateMs = 1600000000000});
  const auto edge = builder.message(chat, MessageSpec{.text = "edge", .dateMs = 1700000000000});
  const auto late = builder.message(chat, MessageSpec{.text = "late", .dateMs = 1700000000001});
  builder.message(chat, MessageSpec{.text = "beyond", .dateMs = 1800000000000});
  EXPECT_EQ(rowids(open().messagesSince({{chat, kAlex}}, 1700000000000, late)),
            (std::vector{edge, late}));
}

TEST_F(ExtractionTest, MessageInTwoMappedChatsIsReportedForEach) {
  const auto sms = builder.oneToOne(kAlex, "SMS");
  const auto m = builder.message(chat, MessageSpec{.text = "\uFFFC"});
  builder.join(sms, m);
  builder.attachment(m, {.mime = "image/png"});
  ChatDB& db = open();
  const auto all = db.messagesAfter({{chat, "a"}, {sms, "b"}}, 0, m);
  ASSERT_EQ(all.size(), 2u);
  EXPECT_EQ(all[0].message.attachments, std::vector{AttachmentKind::image});
  EXPECT_EQ(all[1].message.attachments, std::vector{AttachmentKind::image});
  EXPECT_EQ(statements.back(), db.attachmentSQL(1)) << "each message's attachments are read once";
}

TEST(TypedStreamTest, RoundTripsEveryLengthForm) {
  for (const std::size_t n : {0u, 1u, 127u, 128u, 200u, 65535u, 65536u, 70000u}) {
    std::string text(n, 'x');
    for (std::size_t i = 0; i < n; i += 7) text[i] = static_cast<char>('a' + i % 26);
    EXPECT_EQ(decodeAttributedBody(encodeAttributedBody(text)), text) << n;
  }
  EXPECT_EQ(decodeAttributedBody(encodeAttributedBody("h\u00e9llo \U0001F600")),
            "h\u00e9llo \U0001F600");
}

TEST(TypedStreamTest, EncodesTheExactArchiveLayout) {
  const std::string_view expected(
      "\x04\x0B" "streamtyped" "\x81\xE8\x03\x84\x01\x40\x84\x84\x84\x12" "NSAttributedString"
      "\x00\x84\x84\x08" "NSObject" "\x00\x85\x92\x84\x84\x84\x08" "NSString"
      "\x01\x94\x84\x01\x2B\x02" "hi" "\x86\x84\x02\x69\x49\x01\x81\x00\x00\x92\x84\x84\x84",
      89);
  EXPECT_EQ(encodeAttributedBody("hi"), bytes(expected));
}

TEST(TypedStreamTest, MalformedBlobsNeverReadPastTheEnd) {
  const std::tuple<const char*, Bytes, std::optional<std::string>> cases[] = {
      {"empty", {}, std::nullopt},
      {"no class name", bytes("streamtyped+\x05hello"), std::nullopt},
      {"class name at the very end", bytes("xxNSString"), std::nullopt},
      {"no marker after the class name", bytes("+\x02hiNSString\x01\x94"), std::nullopt},
      {"32-bit length cut off", bytes("NSString+\x82\x05\x00\x00"), std::nullopt},
      {"length runs past the end", bytes("NSString+\x0Ahey"), "hey"},
      {"16-bit length runs past the end", bytes("NSString+\x81\xFF\xFF" "abc"), "abc"},
      {"32-bit length with no text", bytes("NSString+\x82\xFF\xFF\xFF\xFF"), std::nullopt},
      {"zero length", bytes(std::string_view("NSString+\x00", 10)), ""},
      {"0x80 is a plain length", bytes("NSString+\x80" "abc"), "abc"},
      {"invalid UTF-8 becomes U+FFFD", bytes("NSString+\x03" "a\xFF" "b"), "a\uFFFDb"},
      {"first class name wins", bytes("NSString+\x01" "aNSString+\x01" "b"), "a"},
  };
  for (const auto& [name, blob, expected] : cases) {
    EXPECT_EQ(decodeAttributedBody(blob), expected) << name;
  }
}

TEST(TypedStreamTest, EveryTruncationOfARealBlobIsSafe) {
  const Bytes blob = encodeAttributedBody(std::string(300, 'z'));
  for (std::size_t n = 0; n <= blob.size(); ++n) {
    const auto text = decodeAttributedBody(std::span(blob.data(), n));
    if (text) {
      EXPECT_EQ(*text, std::string(text->size(), 'z')) << n;
    }
  }
}

}  // namespace
}  // namespace corvane
