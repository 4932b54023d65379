// Phone: canonical handles and handle matching. A handle is an e-mail address
// or a phone number written however a device wrote it; the canonical form is
// a lower-case e-mail address, or "+" and digits in international form (bare
// digits when the number cannot be placed in a country). Also works out the
// default region that local numbers are read in.
//
// Pure functions apart from `detectRegion()`, which reads the process
// environment and the platform locale; all are safe to call from any thread.
#pragma once

#include <array>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace corvane::Phone {

// The region local numbers are read in when nothing better is known.
inline constexpr std::string_view defaultRegion = "US";

// Overrides the platform locale's region when it holds a two-letter code.
inline constexpr std::string_view regionVariable = "QUODDLE_REGION";

// Country calling codes by two-letter region code.
inline constexpr std::array<std::pair<std::string_view, std::string_view>, 89> callingCodes{{
    {"US", "1"},   {"CA", "1"},   {"PR", "1"},   {"VI", "1"},   {"GU", "1"},   {"AS", "1"},
    {"MP", "1"},   {"BS", "1"},   {"BB", "1"},   {"JM", "1"},   {"TT", "1"},   {"DO", "1"},
    {"BM", "1"},   {"KY", "1"},   {"AG", "1"},   {"DM", "1"},   {"GD", "1"},   {"KN", "1"},
    {"LC", "1"},   {"VC", "1"},   {"AI", "1"},   {"MS", "1"},   {"TC", "1"},   {"VG", "1"},
    {"SX", "1"},   {"GB", "44"},  {"IE", "353"}, {"IS", "354"}, {"NL", "31"},  {"BE", "32"},
    {"FR", "33"},  {"ES", "34"},  {"PT", "351"}, {"IT", "39"},  {"DE", "49"},  {"AT", "43"},
    {"CH", "41"},  {"LU", "352"}, {"DK", "45"},  {"NO", "47"},  {"SE", "46"},  {"FI", "358"},
    {"PL", "48"},  {"CZ", "420"}, {"SK", "421"}, {"HU", "36"},  {"RO", "40"},  {"BG", "359"},
    {"GR", "30"},  {"HR", "385"}, {"SI", "386"}, {"EE", "372"}, {"LV", "371"}, {"LT", "370"},
    {"UA", "380"}, {"RU", "7"},   {"TR", "90"},  {"IL", "972"}, {"AE", "971"}, {"SA", "966"},
    {"QA", "974"}, {"EG", "20"},  {"ZA", "27"},  {"NG", "234"}, {"KE", "254"}, {"MA", "212"},
    {"IN", "91"},  {"PK", "92"},  {"CN", "86"},  {"HK", "852"}, {"TW", "886"}, {"JP", "81"},
    {"KR", "82"},  {"SG", "65"},  {"MY", "60"},  {"TH", "66"},  {"PH", "63"},  {"ID", "62"},
    {"VN", "84"},  {"AU", "61"},  {"NZ", "64"},  {"MX", "52"},  {"BR", "55"},  {"AR", "54"},
    {"CL", "56"},  {"CO", "57"},  {"PE", "51"},  {"VE", "58"},  {"UY", "598"},
}};

// Regions whose national numbers keep their leading "0" after the country code.
inline constexpr std::array<std::string_view, 3> keepTrunkZeroRegions{"IT", "SM", "VA"};

// Scheme prefixes stripped from handles, tested in this order, ignoring case.
inline constexpr std::array<std::string_view, 4> schemePrefixes{
    "mailto:", "tel:", "sms:", "imessage:"};

// The calling code of an upper-case region code, absent for regions not in
// `callingCodes`.
std::optional<std::string_view> callingCode(std::string_view region);

// The canonical handle for `raw`, or absent when `raw` is absent, blank, a
// "urn:" identifier, an e-mail address shorter than three characters or has
// fewer than three digits. Local numbers are read in `region` (any case);
// when it is absent or empty, in `detectRegion()`'s region.
std::optional<std::string> normalize(std::optional<std::string_view> raw,
                                     std::optional<std::string_view> region);

// True when `s` contains "@". E-mail handles only ever match exactly.
bool isEmail(std::string_view s);

// The Unicode decimal digits of `s` in order, as they are written (so
// Arabic-Indic or full-width digits stay what they are): "+1 (415)" gives "1415".
std::string digits(std::string_view s);

// The last ten digits of `s` (all of them when there are fewer), or absent
// when `s` has fewer than seven digits: the key phone numbers match on.
std::optional<std::string> last10(std::string_view s);

// True when `a` and `b` are the same handle: equal, or both phone numbers
// with at least seven digits whose last ten digits agree.
bool same(std::string_view a, std::string_view b);

// The region of a locale identifier such as "en_GB", "zh-Hant-TW" or
// "en_US@rg=dezzzz" (the "rg" override wins), upper-cased; absent when the
// identifier names no region.
std::optional<std::string> regionFromLocale(std::optional<std::string_view> identifier);

// Reads one environment variable; absent when it is not set.
using Environment = std::function<std::optional<std::string>(std::string_view name)>;

// The real process environment.
std::optional<std::string> processEnvironment(std::string_view name);

// The region of a POSIX locale setting: the first non-empty of LC_ALL,
// LC_MESSAGES and LANG (as the C library chooses), without its codeset.
std::optional<std::string> posixLocaleRegion(const Environment& environment);

// The platform locale's region code as the platform reports it, unchecked.
// Implemented once per platform.
std::optional<std::string> currentLocaleRegion();

// Where `detectRegion` looks.
struct RegionSources {
  Environment environment = processEnvironment;
  std::function<std::optional<std::string>()> localeRegion = currentLocaleRegion;
};

// The region to read local numbers in: "QUODDLE_REGION" when it holds two
// characters, else the locale's region when it has two characters, else
// "US"; always upper-cased.
std::string detectRegion(const RegionSources& sources = {});

// `normalize` with the sources `detectRegion` uses when `region` is absent or empty.
std::optional<std::string> normalize(std::optional<std::string_view> raw,
                                     std::optional<std::string_view> region,
                                     const RegionSources& sources);

}  // namespace corvane::Phone
