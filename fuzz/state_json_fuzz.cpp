// "state.json" is the agent's memory, and anything may have happened to the
// file between runs. Loading must never fail (a file it can't take gives the
// default state), and whatever it accepts must be saved and loaded back
// unchanged, byte for byte.
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "core/sync/state_store.h"
#include "core/text/unicode.h"
#include "fuzz/fuzz_check.h"

using namespace corvane;
using fuzz::escaped;
using nlohmann::json;

namespace {

// A private directory for one input, gone afterwards (libFuzzer may end the
// process without running exit handlers). In memory where possible, so that
// the target does not wait on the disk.
class ScratchDirectory {
 public:
  ScratchDirectory() {
    std::string name = ::access("/dev/shm", W_OK) == 0 ? "/dev/shm/corvane-fuzz-XXXXXX"
                                                       : "/tmp/corvane-fuzz-XXXXXX";
    if (::mkdtemp(name.data()) == nullptr) std::abort();
    path_ = name;
  }
  ~ScratchDirectory() { std::filesystem::remove_all(path_); }
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

// The bytes FileStateStore::save writes for `state`.
std::string fileText(const AgentState& state) {
  return json(state).dump(2, ' ', false, json::error_handler_t::replace);
}

bool allTextsValid(const AgentState& s) {
  bool ok = !s.lastSyncAt || isValidUTF8(*s.lastSyncAt);
  ok = ok && (!s.lastError || isValidUTF8(*s.lastError));
  for (const auto& h : s.backfilled) ok = ok && isValidUTF8(h);
  for (const auto& [handle, fingerprint] : s.directorySent) {
    ok = ok && isValidUTF8(handle) && isValidUTF8(fingerprint);
  }
  for (const auto* list : {&s.assistantSent, &s.selfPosted}) {
    for (const auto& sent : *list) ok = ok && isValidUTF8(sent.text);
  }
  for (const auto& done : s.outboxDone) {
    ok = ok && isValidUTF8(done.id) && (!done.error || isValidUTF8(*done.error));
  }
  return ok;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const ScratchDirectory scratch;
  FileStateStore store(scratch.path());
  std::ofstream(store.path(), std::ios::binary)
      .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  const AgentState state = store.load();  // never throws
  FUZZ_CHECK(allTextsValid(state), escaped(fileText(state)));

  // The decoding contract, which load relies on: a value it can't take is a
  // nlohmann::json::exception, never anything else.
  const json j = json::parse(data, data + size, nullptr, /*allow_exceptions=*/false);
  if (!j.is_discarded()) {
    try {
      FUZZ_CHECK(j.get<AgentState>() == state, escaped(fileText(state)));
    } catch (const json::exception&) {
      FUZZ_CHECK(state == AgentState{}, escaped(fileText(state)));
    }
  }

  const std::string saved = fileText(state);
  AgentState loaded;
  try {
    loaded = json::parse(saved).get<AgentState>();
  } catch (const json::exception& e) {
    FUZZ_CHECK(false, std::string(e.what()) + " loading " + escaped(saved));
  }
  FUZZ_CHECK(loaded == state, escaped(saved));
  FUZZ_CHECK(fileText(loaded) == saved, escaped(saved));
  return 0;
}
