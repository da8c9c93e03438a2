#include "bridge/agent_sounds.h"

#include <canberra.h>
#include <glib.h>

#include <cmath>
#include <cstdint>
#include <memory>
#include <new>

#include "base/files.h"

namespace {

constexpr int kSampleRate = 44100;
constexpr double kTail = 0.06;
constexpr double kTwoPi = 6.283185307179586;

void putU32(std::string& out, uint32_t v) {
  for (int i = 0; i < 4; ++i) out.push_back(static_cast<char>((v >> (8 * i)) & 0xff));
}
void putU16(std::string& out, uint16_t v) {
  out.push_back(static_cast<char>(v & 0xff));
  out.push_back(static_cast<char>(v >> 8));
}

double number(const Json& note, const char* key) {
  auto it = note.find(key);
  return it != note.end() && it->is_number() ? it->get<double>() : 0.0;
}

}  // namespace

std::optional<std::string> ondrelSynthesizeTones(const Json& table) {
  double end = 0.0;
  for (const Json& note : table) {
    double noteEnd = number(note, "s") + number(note, "d");
    if (noteEnd > end) end = noteEnd;
  }
  const int32_t n = static_cast<int32_t>((end + kTail) * kSampleRate);
  std::unique_ptr<float[]> samples(new (std::nothrow) float[n > 0 ? n : 1]());
  if (!samples) return std::nullopt;

  for (const Json& note : table) {
    const double f = number(note, "f"), s = number(note, "s"), d = number(note, "d"), a = number(note, "a");
    const int64_t first = static_cast<int64_t>(s * kSampleRate);
    int64_t last = static_cast<int64_t>((s + d) * kSampleRate);
    if (last > n) last = n;
    // A note may start before the sound does; only its audible part is written.
    for (int64_t i = first < 0 ? 0 : first; i < last; ++i) {
      const double t = static_cast<double>(i - first) / 44100.0;
      const double envelope = a * ((1.0 - std::cos(kTwoPi * t / d)) * 0.5);
      const double value = std::sin((kTwoPi * f) * t) * envelope;
      samples[i] += static_cast<float>(value);
    }
  }

  std::string wav;
  wav.reserve(44 + 2 * static_cast<size_t>(n));
  wav += "RIFF";
  putU32(wav, 36 + 2 * static_cast<uint32_t>(n));
  wav += "WAVEfmt ";
  putU32(wav, 16);
  putU16(wav, 1);
  putU16(wav, 1);
  putU32(wav, kSampleRate);
  putU32(wav, kSampleRate * 2);
  putU16(wav, 2);
  putU16(wav, 16);
  wav += "data";
  putU32(wav, 2 * static_cast<uint32_t>(n));
  for (int32_t i = 0; i < n; ++i) {
    float x = samples[i];
    if (x < -1.0f) x = -1.0f;
    if (x > 1.0f) x = 1.0f;
    putU16(wav, static_cast<uint16_t>(static_cast<int16_t>(x * 32767.0f)));
  }
  return wav;
}

const Json& agentSoundTable(const std::string& name) {
  static const Json complete = Json::parse(R"([
    {"f": 523.25, "s": 0.0, "d": 0.15, "a": 0.22},
    {"f": 659.25, "s": 0.09, "d": 0.16, "a": 0.22},
    {"f": 783.99, "s": 0.18, "d": 0.2, "a": 0.22}])");
  static const Json error = Json::parse(R"([
    {"f": 392.0, "s": 0.0, "d": 0.17, "a": 0.18},
    {"f": 293.66, "s": 0.12, "d": 0.22, "a": 0.18}])");
  static const Json none;
  if (name == "complete") return complete;
  if (name == "error") return error;
  return none;
}

AgentSounds::AgentSounds(Player player) : player_(std::move(player)) {}

std::optional<std::string> AgentSounds::soundFromWav(const std::optional<std::string>& data) {
  if (!data) return std::nullopt;
  g_autofree gchar* uuid = g_uuid_string_random();
  std::string path = std::string(g_get_tmp_dir()) + "/ondrel-agent-" + uuid + ".wav";
  if (!writeFileAtomically(path, *data).ok) return std::nullopt;
  return path;
}

void AgentSounds::playAgentSound(const std::string& name) {
  std::optional<std::string>* slot = name == "complete" ? &complete_ : name == "error" ? &error_ : nullptr;
  if (!slot) return;
  if (!*slot) *slot = soundFromWav(ondrelSynthesizeTones(agentSoundTable(name)));
  if (*slot && player_) player_(**slot);
}

AgentSounds::Player systemSoundPlayer() {
  // Made on the first chime, not at start-up; it lives as long as the
  // player, which is the bridge's.
  auto context = std::make_shared<ca_context*>(nullptr);
  return [context](const std::string& path) {
    if (!*context && ca_context_create(context.get()) != CA_SUCCESS) *context = nullptr;
    if (!*context) return;
    // Asynchronous; without a sound server it simply fails.
    ca_context_play(*context, 0, CA_PROP_MEDIA_FILENAME, path.c_str(), CA_PROP_EVENT_DESCRIPTION, "Ondrel", nullptr);
  };
}
