#include "bridge/agent_sounds.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <tuple>

namespace {

uint32_t le(const std::string& wav, size_t at, int bytes) {
  uint32_t v = 0;
  for (int i = bytes - 1; i >= 0; --i) v = (v << 8) | static_cast<unsigned char>(wav[at + i]);
  return v;
}
int16_t sample(const std::string& wav, size_t i) { return static_cast<int16_t>(le(wav, 44 + 2 * i, 2)); }

TEST(AgentSounds, MonoSixteenBitWavLastingUntilTheLongestNoteEndsPlusATail) {
  const std::pair<Json, uint32_t> cases[] = {  // the notes, how many samples the sound has
      {agentSoundTable("complete"), 19404},
      {Json::array(), 2646},
      {Json::parse(R"([{"f": 440, "s": 0, "d": 0.5, "a": 0.1}, {"f": 660, "s": 0.1, "d": 0.1, "a": 0.1}])"), 24696},
      {Json::parse(R"([{"f": 440, "s": -0.01, "d": 0.02, "a": 0.5}])"), 3086},  // cut at time zero
  };
  for (const auto& [table, samples] : cases) {
    const std::string wav = ondrelSynthesizeTones(table).value_or("");
    ASSERT_EQ(wav.size(), 44 + 2 * samples) << table;
    EXPECT_EQ(wav.substr(0, 4) + wav.substr(8, 8) + wav.substr(36, 4), "RIFFWAVEfmt data");
    EXPECT_EQ(le(wav, 4, 4), 36 + 2 * samples);
    EXPECT_EQ(std::tuple(le(wav, 22, 2), le(wav, 24, 4), le(wav, 34, 2)), std::tuple(1u, 44100u, 16u)) << "mono 16-bit";
    EXPECT_EQ(le(wav, 40, 4), 2 * samples);
  }
}

TEST(AgentSounds, NotesSoundUnderTheirEnvelopesAndLoudOnesAreClamped) {
  // The built-in chimes are audible, never reach full scale and end in silence.
  for (const char* name : {"complete", "error"}) {
    const std::string wav = *ondrelSynthesizeTones(agentSoundTable(name));
    int peak = 0;
    for (size_t i = 0; i < (wav.size() - 44) / 2; ++i) peak = std::max(peak, std::abs(int{sample(wav, i)}));
    EXPECT_GT(peak, 0.17 * 32767) << name;
    EXPECT_LT(peak, 32767) << name;
    EXPECT_EQ(sample(wav, 0), 0) << name << ": the envelope starts at zero";
    EXPECT_EQ(sample(wav, (wav.size() - 44) / 2 - 1), 0) << name;
  }
  // Amplitude 3 drives the mix past full scale both ways.
  const std::string loud = *ondrelSynthesizeTones(Json::parse(R"([{"f": 441, "s": 0, "d": 0.5, "a": 3}])"));
  std::vector<int16_t> samples;
  for (size_t i = 0; i < (loud.size() - 44) / 2; ++i) samples.push_back(sample(loud, i));
  EXPECT_EQ(*std::max_element(samples.begin(), samples.end()), 32767);
  EXPECT_EQ(*std::min_element(samples.begin(), samples.end()), -32767);
  // A note starting before zero keeps only its part inside the sound, loudest at time zero.
  EXPECT_NE(sample(*ondrelSynthesizeTones(Json::parse(R"([{"f": 440, "s": -0.01, "d": 0.02, "a": 0.5}])")), 0), 0);
}

}  // namespace
