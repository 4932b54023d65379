#include "tools/chatdb-gen/generator.h"

#include <algorithm>
#include <array>
#include <set>
#include <stdexcept>

#include "core/chatdb/chat_db.h"
#include "core/contacts/phone.h"
#include "tools/chatdb-gen/chat_db_builder.h"
#include "tools/chatdb-gen/corpus.h"
#include "tools/chatdb-gen/random.h"

namespace corvane::chatdbgen {
namespace {

constexpr std::int64_t kDayMs = 86400000;
constexpr std::int64_t kMaxMessages = std::int64_t{1} << 31;
constexpr std::int64_t kLatestEndMs = 4102444800000;  // 2100-01-01
constexpr std::int64_t kRowsPerTransaction = 50000;
constexpr std::size_t kRowsPerBatch = 2000;
// Tap-backs and replies point at one of the last few messages of their chat.
constexpr std::size_t kRecentTargets = 8;
// One in this many chats with other people is the SMS chat of someone who
// also has an iMessage chat.
constexpr std::int64_t kSmsChatEvery = 25;
// Group renames and member changes, and the odd non-message item elsewhere.
constexpr double kGroupEventShare = 0.01;
constexpr double kOneToOneEventShare = 0.003;

enum class ChatKind { oneToOne, group, self };

// A message a tap-back or a reply can point at.
struct Target {
  std::string guid;
  std::string text;
};

struct Chat {
  std::int64_t rowid = 0;
  ChatKind kind = ChatKind::oneToOne;
  std::string service;
  std::string callerId;
  std::vector<Target> recent;
  std::size_t nextRecent = 0;

  void remember(Target target) {
    if (recent.size() < kRecentTargets) {
      recent.push_back(std::move(target));
    } else {
      recent[nextRecent] = std::move(target);
      nextRecent = (nextRecent + 1) % kRecentTargets;
    }
  }
};

// One message row to be: when and where. Rows are written in date order so
// that ROWIDs rise with time, as they do in a real database.
struct Slot {
  std::int64_t dateMs;
  std::uint32_t chat;
  std::uint32_t order;  // tie-breaker that keeps the sort deterministic
};

std::optional<std::string> normalizedOwn(const std::string& handle) {
  const auto own = ChatDB::ownHandles({handle}, std::string(Phone::defaultRegion), 1);
  if (own.empty()) return std::nullopt;
  return own.front();
}

std::string accountOf(const std::string& handle) {
  return (Phone::isEmail(handle) ? "E:" : "P:") + handle;
}

std::int64_t reactionCode(Random& random) {
  // loved, liked, disliked, laughed, emphasized, questioned, emoji
  static constexpr std::array<std::uint64_t, 7> kPercentages = {25, 30, 4, 20, 10, 6, 5};
  std::uint64_t roll = random.below(100);
  for (std::size_t i = 0; i < kPercentages.size(); ++i) {
    if (roll < kPercentages[i]) return 2000 + static_cast<std::int64_t>(i);
    roll -= kPercentages[i];
  }
  return 2006;
}

std::int64_t gapMs(Random& random) {
  const std::uint64_t roll = random.below(100);
  if (roll < 60) return random.between(2000, 90000);
  if (roll < 90) return random.between(90000, 20 * 60000);
  return random.between(20 * 60000, 4 * 3600000);
}

// Shares of all rows turned into shares of the rows that are not tap-backs.
double amongNonReactions(double share, double reactions) {
  return reactions >= 1 ? 0 : share / (1 - reactions);
}

class Generator {
 public:
  Generator(const std::string& path, const GeneratorOptions& options)
      : options_(options),
        random_(options.seed),
        builder_(path, ChatDbSchema::full(),
                 options.seconds ? DateUnit::seconds : DateUnit::nanoseconds,
                 TextStorage::both) {
    for (const auto& handle : options_.ownHandles) ownNormalized_.insert(*normalizedOwn(handle));
    // GUIDs are random, so their index is written all over; with SQLite's
    // small default cache every insert would read pages back from the file.
    builder_.db().exec("PRAGMA cache_size = -131072");
  }

  GenerationSummary run(const Progress& progress) {
    builder_.transaction([&] { createChats(); });
    writeMessages(schedule(), progress);
    return summary_;
  }

 private:
  struct Person {
    PersonHandle handle;
    std::int64_t handleRowId = 0;
  };

  void createChats() {
    std::vector<std::size_t> smsCandidates;
    std::size_t nextSms = 0;
    for (std::int64_t i = 0; i < options_.chats; ++i) {
      if (i % kSmsChatEvery == kSmsChatEvery - 1 && nextSms < smsCandidates.size()) {
        const Person& person = persons_[smsCandidates[nextSms++]];
        const auto handle = builder_.handle(person.handle.id, person.handle.country, "SMS");
        addChat(builder_.chat({handle}, 45, "SMS"), ChatKind::oneToOne, "SMS");
        ++summary_.smsChats;
      } else {
        const Person& person = newPerson();
        if (person.handle.isPhone) smsCandidates.push_back(persons_.size() - 1);
        addChat(builder_.chat({person.handleRowId}, 45, "iMessage"), ChatKind::oneToOne,
                "iMessage");
      }
    }
    summary_.oneToOneChats = options_.chats;
    const std::size_t oneToOnePeople = persons_.size();
    for (std::int64_t g = 0; g < options_.groups; ++g) {
      // Every tenth group is down to one other member; its style still marks it a group.
      const std::uint64_t members = g % 10 == 4 ? 1 : 2 + random_.below(5);
      std::set<std::int64_t> handles;
      while (handles.size() < members) {
        const bool known = oneToOnePeople > 0 && random_.chance(0.8);
        handles.insert(known ? persons_[random_.below(oneToOnePeople)].handleRowId
                             : newPerson().handleRowId);
      }
      const auto rowid = builder_.chat({handles.begin(), handles.end()}, 43, "iMessage");
      if (const auto name = groupName(random_)) {
        builder_.db().run("UPDATE chat SET display_name = ? WHERE ROWID = ?", {*name, rowid});
      }
      addChat(rowid, ChatKind::group, "iMessage");
    }
    summary_.groupChats = options_.groups;
    if (options_.selfNotes > 0) {
      const std::string& own = options_.ownHandles.front();
      const auto country = Phone::isEmail(own) ? std::nullopt : std::optional<std::string>("us");
      addChat(builder_.oneToOne(own, "iMessage", country), ChatKind::self, "iMessage");
    }
  }

  const Person& newPerson() {
    for (;;) {
      PersonHandle handle = personHandle(nextPerson_++, random_);
      const auto normalized =
          Phone::normalize(handle.id, handle.country.value_or(std::string(Phone::defaultRegion)));
      if (normalized && ownNormalized_.contains(*normalized)) continue;
      const auto rowid = builder_.handle(handle.id, handle.country, "iMessage");
      persons_.push_back({std::move(handle), rowid});
      return persons_.back();
    }
  }

  void addChat(std::int64_t rowid, ChatKind kind, const std::string& service) {
    Chat chat;
    chat.rowid = rowid;
    chat.kind = kind;
    chat.service = service;
    // A conversation stays on one of the user's addresses; SMS needs a number.
    const auto& own = options_.ownHandles;
    chat.callerId = own[chats_.size() % own.size()];
    if (service == "SMS" || kind == ChatKind::self) {
      const auto phone =
          std::find_if(own.begin(), own.end(), [](const auto& h) { return !Phone::isEmail(h); });
      chat.callerId = kind == ChatKind::self || phone == own.end() ? own.front() : *phone;
    }
    chats_.push_back(std::move(chat));
  }

  std::vector<Slot> schedule() {
    std::vector<Slot> slots;
    slots.reserve(static_cast<std::size_t>(options_.messages));
    const std::int64_t endMs = options_.endMs, startMs = endMs - options_.days * kDayMs;
    std::uint32_t order = 0;

    // Conversations come in bursts, and a few chats carry most of them.
    std::vector<std::uint32_t> others;
    for (std::uint32_t i = 0; i < chats_.size(); ++i) {
      if (chats_[i].kind != ChatKind::self) others.push_back(i);
    }
    const std::int64_t otherRows = options_.messages - (hasSelfChat() ? options_.selfNotes : 0);
    if (!others.empty()) {
      random_.shuffle(others);
      std::vector<std::uint64_t> weights;
      for (std::size_t rank = 0; rank < others.size(); ++rank) {
        const bool group = chats_[others[rank]].kind == ChatKind::group;
        weights.push_back((group ? 300000 : 600000) / (rank + 2));
      }
      const WeightedPicker picker(weights);
      for (std::int64_t made = 0; made < otherRows;) {
        const std::uint32_t chat = others[picker.pick(random_)];
        std::int64_t t = random_.between(startMs, endMs);
        do {
          slots.push_back({std::min(t, endMs), chat, order++});
          t += gapMs(random_);
        } while (++made < otherRows && random_.chance(0.8));
      }
    }
    if (hasSelfChat()) {
      const auto self = static_cast<std::uint32_t>(chats_.size() - 1);
      for (std::int64_t i = 0; i < options_.selfNotes; ++i) {
        slots.push_back({random_.between(startMs, endMs), self, order++});
      }
    }
    std::sort(slots.begin(), slots.end(), [](const Slot& a, const Slot& b) {
      return a.dateMs != b.dateMs ? a.dateMs < b.dateMs : a.order < b.order;
    });
    return slots;
  }

  bool hasSelfChat() const { return !chats_.empty() && chats_.back().kind == ChatKind::self; }

  void writeMessages(const std::vector<Slot>& slots, const Progress& progress) {
    const auto total = static_cast<std::int64_t>(slots.size());
    for (std::int64_t begin = 0; begin < total; begin += kRowsPerTransaction) {
      const std::int64_t end = std::min(total, begin + kRowsPerTransaction);
      builder_.transaction([&] {
        for (std::int64_t i = begin; i < end; ++i) {
          planRow(slots[static_cast<std::size_t>(i)]);
          if (pending_.size() == kRowsPerBatch || i + 1 == end) flush();
          if (progress && (i + 1) * 10 / total > i * 10 / total) progress(i + 1, total);
        }
      });
    }
  }

  void flush() {
    const auto ids = builder_.messages(pending_);
    std::vector<MessageAttachment> files;
    for (auto& [index, spec] : pendingFiles_) files.push_back({ids[index], std::move(spec)});
    builder_.attachments(files);
    pending_.clear();
    pendingFiles_.clear();
  }

  void add(const Chat& chat, MessageSpec spec, std::vector<AttachmentSpec> files = {}) {
    for (auto& file : files) pendingFiles_.emplace_back(pending_.size(), std::move(file));
    pending_.push_back({chat.rowid, std::move(spec)});
  }

  ChatCounts& countsOf(ChatKind kind) {
    switch (kind) {
      case ChatKind::oneToOne:
        return summary_.oneToOne;
      case ChatKind::group:
        return summary_.groups;
      case ChatKind::self:
        break;
    }
    return summary_.self;
  }

  void planRow(const Slot& slot) {
    Chat& chat = chats_[slot.chat];
    ChatCounts& counts = countsOf(chat.kind);
    ++counts.rows;
    MessageSpec spec{.dateMs = slot.dateMs,
                     .service = chat.service,
                     .guid = makeGuid(random_),
                     .destinationCallerId = chat.callerId,
                     .account = accountOf(chat.callerId)};

    if (chat.kind == ChatKind::self) {
      spec.fromMe = true;
      spec.text = noteText(random_);
      storeText(spec, counts);
      add(chat, std::move(spec));
      return;
    }

    const bool group = chat.kind == ChatKind::group;
    spec.fromMe = random_.chance(group ? 0.3 : 0.45);
    if (random_.chance(group ? kGroupEventShare : kOneToOneEventShare)) {
      spec.itemType = group ? random_.between(1, 3) : 6;
      ++counts.events;
      add(chat, std::move(spec));
      return;
    }

    const Target* target = chat.recent.empty() ? nullptr : &random_.pick(chat.recent);
    if (target != nullptr && random_.chance(options_.reactions)) {
      spec.amt = reactionCode(random_);
      spec.associatedGuid = "p:0/" + target->guid;
      spec.text = reactionText(spec.amt, target->text, random_);
      storeText(spec, counts);
      ++counts.reactions;
      add(chat, std::move(spec));
      return;
    }

    if (target != nullptr &&
        random_.chance(amongNonReactions(options_.replies, options_.reactions))) {
      spec.threadGuid = target->guid;
      ++counts.replies;
    }
    std::vector<AttachmentSpec> files;
    std::string text;
    if (random_.chance(amongNonReactions(options_.attachments, options_.reactions))) {
      files.push_back(attachmentSpec(random_));
      while (files.size() < 4 && random_.chance(0.15)) files.push_back(attachmentSpec(random_));
      if (random_.chance(0.4)) text = captionText(random_);
      // Each attachment stands in the text as an object replacement character.
      std::string marks;
      for (std::size_t i = 0; i < files.size(); ++i) marks += "\xEF\xBF\xBC";
      spec.text = marks + text;
      ++counts.withAttachments;
    } else {
      text = messageText(random_);
      spec.text = text;
      if (text.starts_with("https://") && random_.chance(0.7)) {
        files.push_back(linkPreviewSpec(random_));
        ++counts.linkPreviews;
      }
    }
    storeText(spec, counts);
    if (!files.empty()) spec.cacheHasAttachments = 1;
    chat.remember({*spec.guid, std::move(text)});
    add(chat, std::move(spec), std::move(files));
  }

  void storeText(MessageSpec& spec, ChatCounts& counts) {
    const bool bodyOnly = random_.chance(options_.bodyOnly);
    spec.storage = bodyOnly ? TextStorage::attributedBody : TextStorage::both;
    if (bodyOnly) ++counts.bodyOnly;
  }

  const GeneratorOptions& options_;
  Random random_;
  ChatDbBuilder builder_;
  std::set<std::string> ownNormalized_;
  std::vector<Person> persons_;
  std::uint64_t nextPerson_ = 0;
  std::vector<Chat> chats_;  // the notes-to-self chat, when there is one, last
  GenerationSummary summary_;
  // Rows planned but not yet written, and their attachments by row index.
  std::vector<ChatMessage> pending_;
  std::vector<std::pair<std::size_t, AttachmentSpec>> pendingFiles_;
};

void requireShare(double value, const char* name) {
  if (!(value >= 0 && value <= 1)) {
    throw std::invalid_argument(std::string(name) + " must be between 0 and 1");
  }
}

}  // namespace

void validate(const GeneratorOptions& o) {
  if (o.messages < 0 || o.messages > kMaxMessages) {
    throw std::invalid_argument("the message count must be between 0 and 2147483648");
  }
  if (o.chats < 0 || o.groups < 0 || o.selfNotes < 0) {
    throw std::invalid_argument("chat, group and note counts can't be negative");
  }
  if (o.selfNotes > o.messages) {
    throw std::invalid_argument("there can't be more notes to self than messages");
  }
  if (o.messages > o.selfNotes && o.chats + o.groups == 0) {
    throw std::invalid_argument("messages other than notes to self need a chat or a group");
  }
  if (o.days < 1 || o.days > 36500) {
    throw std::invalid_argument("the span must be between 1 and 36500 days");
  }
  if (o.endMs <= ChatDB::appleEpochMs + o.days * kDayMs || o.endMs > kLatestEndMs) {
    throw std::invalid_argument("every date must fall between 2001-01-01 and 2100-01-01");
  }
  requireShare(o.bodyOnly, "the attributedBody-only share");
  requireShare(o.reactions, "the tap-back share");
  requireShare(o.attachments, "the attachment share");
  requireShare(o.replies, "the reply share");
  if (o.reactions + o.attachments > 1 || o.reactions + o.replies > 1) {
    throw std::invalid_argument(
        "tap-backs carry neither attachments nor replies: their shares can't add up to more "
        "than 1");
  }
  if (o.ownHandles.empty()) throw std::invalid_argument("at least one own handle is needed");
  for (const auto& handle : o.ownHandles) {
    if (!normalizedOwn(handle)) {
      throw std::invalid_argument(handle +
                                  " is neither an e-mail address nor an international number");
    }
  }
}

GenerationSummary generateChatDb(const std::string& path, const GeneratorOptions& options,
                                 const Progress& progress) {
  validate(options);
  return Generator(path, options).run(progress);
}

}  // namespace corvane::chatdbgen
