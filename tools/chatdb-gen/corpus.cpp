#include "tools/chatdb-gen/corpus.h"

#include <array>
#include <cstdio>
#include <string_view>

#include "core/text/unicode.h"

namespace corvane::chatdbgen {
namespace {

using Words = std::span<const std::string_view>;

constexpr std::array<std::string_view, 36> kAreaCodes = {
    "212", "213", "305", "310", "312", "323", "347", "404", "408", "415", "425", "469",
    "503", "510", "512", "602", "617", "619", "628", "646", "650", "702", "713", "718",
    "720", "773", "786", "801", "808", "818", "858", "917", "929", "949", "971", "978"};

constexpr std::array<std::string_view, 40> kFirstNames = {
    "Alex",   "Jamie",   "Morgan", "Taylor", "Jordan", "Casey", "Riley", "Avery", "Quinn", "Harper",
    "Rowan",  "Emerson", "Parker", "Reese",  "Sasha",  "Noor",  "Mateo", "Priya", "Kenji", "Lena",
    "Omar",   "Ines",    "Tomas",  "Freya",  "Dmitri", "Amara", "Luca",  "Sofia", "Wei",   "Hana",
    "Elliot", "Zoe",     "Nico",   "Maya",   "Felix",  "Ada",   "Theo",  "Iris",  "Jonah", "Clara"};

constexpr std::array<std::string_view, 40> kLastNames = {
    "Morgan",  "Lee",     "Patel",   "Garcia",  "Nguyen",  "Kim",       "Okafor",   "Rossi",
    "Schmidt", "Dubois",  "Silva",   "Cohen",   "Tanaka",  "Novak",     "Larsen",   "Haddad",
    "Walsh",   "Reyes",   "Fischer", "Moreau",  "Brennan", "Ito",       "Kowalski", "Mendes",
    "Hughes",  "Ortiz",   "Sato",    "Bauer",   "Khan",    "Lindqvist", "Price",    "Ferreira",
    "Murphy",  "Alvarez", "Chen",    "Adeyemi", "Varga",   "Holm",      "Bishop",   "Quint"};

constexpr std::array<std::string_view, 6> kEmailDomains = {"example.com",      "Example.com",
                                                           "mail.example.org", "example.net",
                                                           "EXAMPLE.ORG",      "post.example.com"};

constexpr std::array<std::string_view, 96> kTexts = {"hey",
                                                     "Hey!",
                                                     "ok",
                                                     "Ok 👍",
                                                     "sounds good",
                                                     "Sounds good!",
                                                     "lol",
                                                     "haha yes",
                                                     "😂😂😂",
                                                     "on my way",
                                                     "On my way, 10 min",
                                                     "running late sorry",
                                                     "Running 5 min late 🏃‍♀️",
                                                     "where are you?",
                                                     "Here",
                                                     "just parked",
                                                     "can you call me when you get a sec",
                                                     "Call you in 5",
                                                     "thanks!",
                                                     "Thank you so much ❤️",
                                                     "no worries",
                                                     "np",
                                                     "what time tomorrow?",
                                                     "7 works",
                                                     "How about 7:30?",
                                                     "dinner tonight?",
                                                     "I'm in 🍕",
                                                     "coffee tomorrow morning? ☕️",
                                                     "yes!!",
                                                     "Nope",
                                                     "maybe next week",
                                                     "did you see the game last night",
                                                     "That was wild 🔥",
                                                     "Happy birthday!! 🎉🎂",
                                                     "congrats!!",
                                                     "good luck today 🤞",
                                                     "how did it go?",
                                                     "Went well I think",
                                                     "miss you",
                                                     "Love you ❤️",
                                                     "goodnight",
                                                     "Morning ☀️",
                                                     "grabbing groceries, need anything?",
                                                     "Milk and eggs pls",
                                                     "got it",
                                                     "Can you pick up the kids at 3?",
                                                     "Yep",
                                                     "the flight is delayed ✈️",
                                                     "Landed!",
                                                     "Text me when you're home",
                                                     "Home 🏠",
                                                     "can't talk, in a meeting",
                                                     "I'll call you after",
                                                     "Did you get my email?",
                                                     "just sent it",
                                                     "👀",
                                                     "🙏",
                                                     "👋🏽",
                                                     "Welcome back!",
                                                     "omg",
                                                     "That's hilarious",
                                                     "wait really?",
                                                     "I know right",
                                                     "Let me check and get back to you",
                                                     "Tomorrow works better for me",
                                                     "Can we push to Thursday?",
                                                     "Sure, Thursday is fine",
                                                     "see you there",
                                                     "at the door",
                                                     "doors open at 8",
                                                     "Bring a jacket, it's cold 🥶",
                                                     "Happy new year! 🥂",
                                                     "Merry Christmas 🎄",
                                                     "feel better soon",
                                                     "Thanks, already feeling better",
                                                     "What's the wifi password?",
                                                     "It's on the fridge",
                                                     "did you feed the cat 🐈",
                                                     "Yes twice 😅",
                                                     "ugh mondays",
                                                     "weekend plans?",
                                                     "Hiking if the weather holds ⛰️",
                                                     "Movie night?",
                                                     "I'll bring snacks 🍿",
                                                     "Send me the address",
                                                     "Just shared my location",
                                                     "traffic is terrible",
                                                     "Leaving now",
                                                     "almost there",
                                                     "Parking is a nightmare here",
                                                     "Good call",
                                                     "Agreed",
                                                     "hmm not sure",
                                                     "Let's do it",
                                                     "count me in",
                                                     "Same here"};

constexpr std::array<std::string_view, 12> kCaptions = {
    "look at this",   "From today 📸", "the view!!",       "Remember this?",
    "new haircut 💇",  "found it",        "Receipt attached", "how cute is this 🥹",
    "ticket for Sat", "check page 2",    "Dinner 🍝",         "this one or the other?"};

constexpr std::array<std::string_view, 16> kNotes = {
    "Buy milk, eggs, coffee",
    "Dentist Tue 3pm",
    "Wifi: guest-network / hunter2",
    "Call the landlord about the heater",
    "Ideas for Mom's birthday: scarf, book, plant 🌱",
    "Parking spot B14",
    "Flight confirmation K7XQ2M",
    "Book club: chapter 7 by Friday",
    "Pick up dry cleaning",
    "Renew passport before June",
    "Gym: legs + 20 min cardio",
    "Recipe: 2 cups flour, 1 tsp salt, 3/4 cup water",
    "Return library books",
    "Podcast rec from Jamie",
    "Pay electricity bill",
    "Locker code 4821"};

constexpr std::array<std::string_view, 10> kGroupNames = {"Family 🏡",
                                                          "Climbing crew",
                                                          "Book club 📚",
                                                          "Roommates",
                                                          "Soccer Sundays ⚽️",
                                                          "Trip planning ✈️",
                                                          "Work lunch",
                                                          "Cousins",
                                                          "Game night 🎲",
                                                          "Neighbours"};

constexpr std::array<std::string_view, 6> kLinks = {
    "https://example.com/article/2831",    "https://www.example.org/recipes/shakshuka",
    "https://example.net/tickets?id=77",   "https://maps.example.com/?q=coffee",
    "https://video.example.com/watch/Zx8", "https://example.com/photos/album/12"};

constexpr std::array<std::string_view, 6> kReactionEmoji = {"😂", "🔥", "🎉", "😮", "🥲", "💯"};

std::string fourDigits(std::uint64_t n) {
  char buf[8];
  std::snprintf(buf, sizeof buf, "%04u", static_cast<unsigned>(n % 10000));
  return buf;
}

// North American numbers in 555-01xx, the range set aside for fiction, spread
// over real area codes; further numbers move on to other exchanges.
PersonHandle usNumber(std::uint64_t serial, Random& random) {
  const std::string area(kAreaCodes[serial % kAreaCodes.size()]);
  const std::uint64_t line = serial / kAreaCodes.size();
  const std::string exchange = line < 100 ? "555" : std::to_string(201 + (line - 100) / 10000);
  const std::string subscriber = line < 100 ? fourDigits(100 + line) : fourDigits(line - 100);
  std::string id;
  switch (random.below(10)) {
    case 0:
    case 1:
    case 2:
    case 3:
      id = "+1" + area + exchange + subscriber;
      break;
    case 4:
    case 5:
      id = "(" + area + ") " + exchange + "-" + subscriber;
      break;
    case 6:
    case 7:
      id = area + "-" + exchange + "-" + subscriber;
      break;
    case 8:
      id = area + exchange + subscriber;
      break;
    default:
      id = "+1 " + area + " " + exchange + " " + subscriber;
      break;
  }
  return {id, "us", true};
}

PersonHandle internationalNumber(std::uint64_t serial, Random& random) {
  const std::string tail = fourDigits(serial);
  switch (serial % 5) {
    case 0:  // UK, written locally half the time
      return random.chance(0.5) ? PersonHandle{"07700 90" + tail, "gb", true}
                                : PersonHandle{"+44770090" + tail, "gb", true};
    case 1:
      return {"+33 6 12 " + tail.substr(0, 2) + " " + tail.substr(2), "fr", true};
    case 2:
      return {"+49151" + tail + "321", "de", true};
    case 3:
      return {"+61 412 " + tail.substr(0, 3) + " " + tail.substr(3) + "88", "au", true};
    default:
      return {"+81 90 " + tail + " 5678", "jp", true};
  }
}

PersonHandle emailAddress(std::uint64_t serial, Random& random) {
  const auto first = kFirstNames[serial % kFirstNames.size()];
  const auto last = kLastNames[(serial / kFirstNames.size()) % kLastNames.size()];
  const std::uint64_t round = serial / (kFirstNames.size() * kLastNames.size());
  std::string local;
  switch (random.below(3)) {
    case 0:
      local = std::string(first) + "." + std::string(last);
      break;
    case 1:
      local = lowercased(first) + "_" + lowercased(last);
      break;
    default:
      local = lowercased(first) + lowercased(last);
      break;
  }
  if (round > 0) local += std::to_string(round);
  return {local + "@" + std::string(random.pick(Words(kEmailDomains))), std::nullopt, false};
}

}  // namespace

PersonHandle personHandle(std::uint64_t n, Random& random) {
  const std::uint64_t block = n / 10, slot = n % 10;
  if (slot < 7) return usNumber(block * 7 + slot, random);
  if (slot == 7) return internationalNumber(block, random);
  return emailAddress(block * 2 + (slot - 8), random);
}

std::string messageText(Random& random) {
  const std::uint64_t roll = random.below(100);
  if (roll < 2) return std::string(random.pick(Words(kLinks)));
  std::string text(random.pick(Words(kTexts)));
  if (roll < 5) {
    // A longer message, so that some attributed bodies need a two-byte length.
    while (text.size() < 300) text += ". " + std::string(random.pick(Words(kTexts)));
  } else if (roll < 20) {
    text += " " + std::string(random.pick(Words(kTexts)));
  }
  return text;
}

std::string captionText(Random& random) { return std::string(random.pick(Words(kCaptions))); }

std::string noteText(Random& random) { return std::string(random.pick(Words(kNotes))); }

std::optional<std::string> groupName(Random& random) {
  if (random.chance(0.4)) return std::nullopt;
  return std::string(random.pick(Words(kGroupNames)));
}

AttachmentSpec attachmentSpec(Random& random) {
  const std::string n = std::to_string(random.between(1000, 9999));
  const std::uint64_t roll = random.below(100);
  if (roll < 50) return {"image/jpeg", "public.jpeg", "IMG_" + n + ".jpeg", false};
  if (roll < 68) return {"image/heic", "public.heic", "IMG_" + n + ".HEIC", false};
  if (roll < 73) return {"image/png", "public.png", "Screenshot " + n + ".png", false};
  if (roll < 83)
    return {"video/quicktime", "com.apple.quicktime-movie", "IMG_" + n + ".MOV", false};
  if (roll < 90) return {std::nullopt, "com.apple.coreaudio-format", "Audio Message.caf", false};
  if (roll < 95) return {"image/png", "public.png", "sticker-" + n + ".png", true};
  if (roll < 98) return {"application/pdf", "com.adobe.pdf", "Document " + n + ".pdf", false};
  return {"image/gif", "com.compuserve.gif", "giphy-" + n + ".gif", false};
}

AttachmentSpec linkPreviewSpec(Random& random) {
  const std::string guid = makeGuid(random);
  return {std::nullopt, "com.apple.messages.URLBalloonProvider", guid + ".pluginPayloadAttachment",
          false};
}

std::string makeGuid(Random& random) {
  const std::uint64_t a = random.next(), b = random.next();
  char buf[40];
  std::snprintf(buf, sizeof buf, "%08X-%04X-%04X-%04X-%012llX", static_cast<unsigned>(a >> 32),
                static_cast<unsigned>((a >> 16) & 0xFFFF), static_cast<unsigned>(a & 0xFFFF),
                static_cast<unsigned>(b >> 48),
                static_cast<unsigned long long>(b & 0xFFFFFFFFFFFFULL));
  return buf;
}

std::string reactionText(std::int64_t code, const std::string& targetText, Random& random) {
  static constexpr std::array<std::string_view, 6> kVerbs = {
      "Loved", "Liked", "Disliked", "Laughed at", "Emphasized", "Questioned"};
  const std::string quoted =
      targetText.empty() ? "an attachment" : "“" + clipUTF16(targetText, 60) + "”";
  if (code >= 2000 && code <= 2005) return std::string(kVerbs[code - 2000]) + " " + quoted;
  return "Reacted " + std::string(random.pick(Words(kReactionEmoji))) + " to " + quoted;
}

}  // namespace corvane::chatdbgen
