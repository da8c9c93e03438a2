#include "bridge/agent_sounds.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

namespace {

uint32_t u32(const std::string& wav, size_t at) {
  uint32_t v = 0;
  for (int i = 3; i >= 0; --i) v = (v << 8) | static_cast<unsigned char>(wav[at + i]);
  return v;
}
uint16_t u16(const std::string& wav, size_t at) {
  return static_cast<uint16_t>(static_cast<unsigned char>(wav[at]) | static_cast<unsigned char>(wav[at + 1]) << 8);
}
int16_t sample(const std::string& wav, size_t i) { return static_cast<int16_t>(u16(wav, 44 + 2 * i)); }

// One output sample worked out from the tone-table definition, note by note.
int16_t expectedSample(const Json& table, long i) {
  float sum = 0;
  for (const Json& note : table) {
    const double f = note["f"], s = note["s"], d = note["d"], a = note["a"];
    const long first = static_cast<long>(s * 44100), last = static_cast<long>((s + d) * 44100);
    if (i < first || i >= last) continue;
    const double t = (i - first) / 44100.0;
    sum += static_cast<float>(std::sin(2 * M_PI * f * t) * (a * ((1 - std::cos(2 * M_PI * t / d)) * 0.5)));
  }
  return static_cast<int16_t>(std::clamp(sum, -1.0f, 1.0f) * 32767.0f);
}

TEST(AgentSounds, WavHeaderAndLengthFollowTheTable) {
  const struct {
    Json table;
    uint32_t samples, bytes;
  } cases[] = {
      {agentSoundTable("complete"), 19404, 38852},
      {agentSoundTable("error"), 17640, 35324},
      {Json::array(), 2646, 5336},
      // The longest note comes first: the sound lasts until it ends.
      {Json::parse(R"([{"f": 440, "s": 0, "d": 0.5, "a": 0.1}, {"f": 660, "s": 0.1, "d": 0.1, "a": 0.1}])"), 24696,
       49436},
  };
  for (const auto& c : cases) {
    auto wav = ondrelSynthesizeTones(c.table);
    ASSERT_TRUE(wav);
    ASSERT_EQ(wav->size(), c.bytes) << c.table;
    EXPECT_EQ(wav->substr(0, 4), "RIFF");
    EXPECT_EQ(u32(*wav, 4), 36 + 2 * c.samples);
    EXPECT_EQ(wav->substr(8, 8), "WAVEfmt ");
    EXPECT_EQ(u32(*wav, 16), 16u);
    EXPECT_EQ(u16(*wav, 20), 1u);
    EXPECT_EQ(u16(*wav, 22), 1u);
    EXPECT_EQ(u32(*wav, 24), 44100u);
    EXPECT_EQ(u32(*wav, 28), 88200u);
    EXPECT_EQ(u16(*wav, 32), 2u);
    EXPECT_EQ(u16(*wav, 34), 16u);
    EXPECT_EQ(wav->substr(36, 4), "data");
    EXPECT_EQ(u32(*wav, 40), 2 * c.samples);
  }
  const std::string complete = *ondrelSynthesizeTones(agentSoundTable("complete"));
  EXPECT_EQ(complete.substr(0, 8), std::string("RIFF\xbc\x97\x00\x00", 8)) << "38844, little-endian";
  const std::string silence = *ondrelSynthesizeTones(Json::array());
  EXPECT_TRUE(std::all_of(silence.begin() + 44, silence.end(), [](char b) { return b == 0; }));
  EXPECT_TRUE(agentSoundTable("Complete").is_null());
}

TEST(AgentSounds, SamplesMixTheNotesUnderTheirEnvelopes) {
  for (const char* name : {"complete", "error"}) {
    const Json& table = agentSoundTable(name);
    const std::string wav = *ondrelSynthesizeTones(table);
    const long n = static_cast<long>((wav.size() - 44) / 2);
    // Note middles, overlaps of two notes and both ends of every note.
    for (long i : {0L, 1L, 3307L, 5000L, 6614L, 6615L, 9000L, 11024L, 12000L, 14000L, 16757L, n - 1}) {
      if (i < n) {
        EXPECT_EQ(sample(wav, i), expectedSample(table, i)) << name << " sample " << i;
      }
    }
    EXPECT_NE(sample(wav, 3307), 0) << name;
    int peak = 0;
    for (long i = 0; i < n; ++i) peak = std::max(peak, std::abs(static_cast<int>(sample(wav, i))));
    EXPECT_GT(peak, 0.17 * 32767) << name;
    EXPECT_LT(peak, 32767) << name << ": the built-in chimes never reach full scale";
  }
  // After the last note of "complete" (ends before sample 16758) only the silent tail is left.
  const std::string complete = *ondrelSynthesizeTones(agentSoundTable("complete"));
  for (long i = 16758; i < 19404; ++i) ASSERT_EQ(sample(complete, i), 0) << i;
}

TEST(AgentSounds, LoudNotesAreClampedAndNotesOutsideTheSoundAreCut) {
  // Amplitude 3 drives the mix past full scale both ways.
  const std::string loud = *ondrelSynthesizeTones(Json::parse(R"([{"f": 441, "s": 0, "d": 0.5, "a": 3}])"));
  std::vector<int16_t> samples;
  for (size_t i = 0; i < (loud.size() - 44) / 2; ++i) samples.push_back(sample(loud, i));
  EXPECT_EQ(*std::max_element(samples.begin(), samples.end()), 32767);
  EXPECT_EQ(*std::min_element(samples.begin(), samples.end()), -32767);

  // A note starting before zero keeps only its part inside the sound.
  const Json early = Json::parse(R"([{"f": 440, "s": -0.01, "d": 0.02, "a": 0.5}])");
  const std::string wav = *ondrelSynthesizeTones(early);
  const long n = static_cast<long>((0.01 + 0.06) * 44100);
  ASSERT_EQ(wav.size(), 44 + 2 * static_cast<size_t>(n));
  for (long i : {0L, 100L, 440L, 441L}) EXPECT_EQ(sample(wav, i), expectedSample(early, i)) << i;
  EXPECT_NE(sample(wav, 0), 0) << "the note is at its loudest at time zero";
}

}  // namespace
