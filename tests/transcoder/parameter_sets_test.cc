// H.264 packets with and without their parameter sets, byte for byte.

#include "transcoder/segmenter/parameter_sets.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

extern "C" {
#include <libavcodec/defs.h>
}

namespace tarn::segmenter {
namespace {

using Bytes = std::string;

template <size_t n>
Bytes B(const char (&literal)[n]) {
  return Bytes(literal, n - 1);
}

// A real pair of sets (96x64, High profile), and a second one (another size) for changes.
const Bytes kSps =
    B("\x67\x64\x00\x0A\xAC\xD9\x46\x1A\x10\x00\x00\x03\x00\x10\x00\x00\x03\x03\x20"
      "\xF1\x22\x59\x60");
const Bytes kPps = B("\x68\xEB\xE3\xCB\x22\xC0");
const Bytes kOtherSps = B("\x67\x42\xC0\x1E\xDB\x02\x80\xBF\xE5\xC0\x44");
const Bytes kOtherPps = B("\x68\xCE\x38\x80");
const Bytes kIdr = B("\x65\x88\x84\x00\x33");
const Bytes kOpenKeyframe = B("\x41\x9A\x21\x4B");  // a slice of a picture that is no IDR
const Bytes kSei = B("\x06\x06\x01\x84\x80");       // recovery point
const Bytes kDelimiter = B("\x09\x10");
const Bytes kCode = B("\0\0\0\1");
const Bytes kShortCode = B("\0\0\1");

Bytes Stream(std::initializer_list<Bytes> units) {
  Bytes stream;
  for (const Bytes& unit : units) stream += kCode + unit;
  return stream;
}

Bytes WithLengths(std::initializer_list<Bytes> units) {
  Bytes packet;
  for (const Bytes& unit : units) {
    packet += B("\0\0\0") + static_cast<char>(unit.size()) + unit;
  }
  return packet;
}

Bytes ConfigurationRecord(const Bytes& sps, const Bytes& pps) {
  return B("\1") + sps.substr(1, 3) + B("\xFF\xE1\0") + static_cast<char>(sps.size()) + sps +
         B("\1\0") + static_cast<char>(pps.size()) + pps;
}

struct FreeParameters {
  void operator()(AVCodecParameters* parameters) const { avcodec_parameters_free(&parameters); }
};
using Parameters = std::unique_ptr<AVCodecParameters, FreeParameters>;

Parameters ParametersOf(AVCodecID codec, const Bytes& extradata) {
  Parameters parameters(avcodec_parameters_alloc());
  parameters->codec_type = AVMEDIA_TYPE_VIDEO;
  parameters->codec_id = codec;
  parameters->extradata =
      static_cast<uint8_t*>(av_mallocz(extradata.size() + AV_INPUT_BUFFER_PADDING_SIZE));
  std::memcpy(parameters->extradata, extradata.data(), extradata.size());
  parameters->extradata_size = static_cast<int>(extradata.size());
  return parameters;
}

// One stream's converter.
class Converter {
 public:
  explicit Converter(const Bytes& extradata, AVCodecID codec = AV_CODEC_ID_H264) {
    sets_.SetStream(*ParametersOf(codec, extradata));
  }

  // The converted bytes; an error's code as text.
  Bytes Convert(const Bytes& data, bool entry) {
    AVPacket* packet = av_packet_alloc();
    EXPECT_EQ(av_new_packet(packet, static_cast<int>(data.size())), 0);
    std::memcpy(packet->data, data.data(), data.size());
    packet->pts = 1234;
    packet->flags = AV_PKT_FLAG_KEY;
    const int status = sets_.Convert(packet, entry);
    Bytes result = "error " + std::to_string(status);
    if (status == 0) {
      result.assign(reinterpret_cast<const char*>(packet->data), packet->size);
      EXPECT_EQ(packet->pts, 1234);
      EXPECT_EQ(packet->flags, AV_PKT_FLAG_KEY);
      // Readers of the bytes look beyond their end.
      const uint8_t padding[AV_INPUT_BUFFER_PADDING_SIZE] = {};
      EXPECT_EQ(std::memcmp(packet->data + packet->size, padding, sizeof padding), 0);
    }
    av_packet_free(&packet);
    return result;
  }

 private:
  ParameterSets sets_;
};

TEST(ParameterSets, TheIsoFormBecomesAByteStream) {
  Converter converter(ConfigurationRecord(kSps, kPps));
  EXPECT_EQ(converter.Convert(WithLengths({kOpenKeyframe}), false), Stream({kOpenKeyframe}));
}

TEST(ParameterSets, AnIdrPictureInTheIsoFormGetsThemOnce) {
  Converter converter(ConfigurationRecord(kSps, kPps));
  for (const bool entry : {true, false, true}) {
    const Bytes converted = converter.Convert(WithLengths({kIdr}), entry);
    EXPECT_EQ(converted.substr(0, 2 * kCode.size() + kSps.size() + kPps.size()),
              Stream({kSps, kPps}));
    EXPECT_EQ(converted.find(kSps, kCode.size() + 1), Bytes::npos);
    EXPECT_TRUE(converted.ends_with(kIdr));
  }
}

TEST(ParameterSets, AKeyframeThatIsNoIdrPictureGetsThem) {
  Converter iso(ConfigurationRecord(kSps, kPps));
  const Bytes converted = iso.Convert(WithLengths({kSei, kOpenKeyframe}), true);
  EXPECT_TRUE(converted.starts_with(Stream({kSps, kPps})));
  EXPECT_NE(converted.find(kSei), Bytes::npos);
  EXPECT_TRUE(converted.ends_with(kOpenKeyframe));

  Converter stream(Stream({kSps, kPps}));
  EXPECT_EQ(stream.Convert(Stream({kSei, kOpenKeyframe}), true),
            Stream({kSps, kPps, kSei, kOpenKeyframe}));
}

TEST(ParameterSets, TheyComeBehindTheAccessUnitDelimiter) {
  Converter converter(Stream({kSps, kPps}));
  EXPECT_EQ(converter.Convert(Stream({kDelimiter, kSei, kOpenKeyframe}), true),
            Stream({kDelimiter, kSps, kPps, kSei, kOpenKeyframe}));
}

TEST(ParameterSets, WhereDecodingDoesNotBeginNothingIsAdded) {
  Converter converter(Stream({kSps, kPps}));
  const Bytes packet = Stream({kDelimiter, kOpenKeyframe});
  EXPECT_EQ(converter.Convert(packet, false), packet);
}

TEST(ParameterSets, APacketThatBringsThemKeepsItsOwnOnly) {
  Converter converter(Stream({kSps, kPps}));
  const Bytes packet = Stream({kDelimiter, kOtherSps, kOtherPps, kIdr});
  EXPECT_EQ(converter.Convert(packet, true), packet);
}

TEST(ParameterSets, SetsThatChangedOnTheWayCount) {
  Converter converter(Stream({kSps, kPps}));
  converter.Convert(Stream({kOtherSps, kOtherPps, kIdr}), true);
  EXPECT_EQ(converter.Convert(Stream({kOpenKeyframe}), true),
            Stream({kOtherSps, kOtherPps, kOpenKeyframe}));
}

TEST(ParameterSets, AStreamWithoutExtradataTakesThemFromItsPackets) {
  Converter converter("");
  EXPECT_EQ(converter.Convert(Stream({kOpenKeyframe}), true), Stream({kOpenKeyframe}));
  converter.Convert(Stream({kSps, kPps, kIdr}), true);
  EXPECT_EQ(converter.Convert(Stream({kOpenKeyframe}), true), Stream({kSps, kPps, kOpenKeyframe}));
}

TEST(ParameterSets, ShortStartCodesAndZeroBytesBetweenUnits) {
  Converter converter(Stream({kSps, kPps}));
  const Bytes packet =
      kShortCode + kDelimiter + B("\0\0") + kShortCode + kSei + kShortCode + kOpenKeyframe;
  const Bytes converted = converter.Convert(packet, true);
  EXPECT_EQ(converted, kShortCode + kDelimiter + Stream({kSps, kPps}) + B("\0\0") + kShortCode +
                           kSei + kShortCode + kOpenKeyframe);
}

TEST(ParameterSets, DamagedPacketsInTheIsoFormAreErrorsAndTheNextOneIsNot) {
  Converter converter(ConfigurationRecord(kSps, kPps));
  const Bytes longer_than_the_packet = B("\0\0\1\0") + kIdr;
  EXPECT_TRUE(converter.Convert(longer_than_the_packet, true).starts_with("error -"));
  const Bytes huge = B("\xFF\xFF\xFF\xFF") + kIdr;
  EXPECT_TRUE(converter.Convert(huge, true).starts_with("error -"));
  EXPECT_EQ(converter.Convert(WithLengths({kOpenKeyframe}), false), Stream({kOpenKeyframe}));
}

TEST(ParameterSets, DamagedByteStreamsPassWhole) {
  Converter converter(Stream({kSps, kPps}));
  for (const Bytes& damaged : {B("\0"), B("\0\0\1"), B("\0\0\0\1"), B("garbage"),
                               B("\0\0\1\0\0\1\0\0"), B("\0\0\0\0\0")}) {
    EXPECT_EQ(converter.Convert(damaged, false), damaged);
    EXPECT_TRUE(converter.Convert(damaged, true).ends_with(damaged));
  }
}

TEST(ParameterSets, BrokenExtradataAddsNothing) {
  for (const Bytes& extradata :
       {B("\1"), B("\1\x64\0\x0A\xFF\xE1\xFF\xFF"), B("\1\1\1\1\1\1\1\1")}) {
    Converter converter(extradata);
    EXPECT_TRUE(converter.Convert(Stream({kOpenKeyframe}), true).ends_with(kOpenKeyframe));
  }
}

TEST(ParameterSets, OtherCodecsAreLeftAlone) {
  for (const AVCodecID codec : {AV_CODEC_ID_HEVC, AV_CODEC_ID_MPEG4, AV_CODEC_ID_AAC}) {
    Converter converter(ConfigurationRecord(kSps, kPps), codec);
    for (const Bytes& data : {WithLengths({kIdr}), Stream({kIdr}), B("\0")}) {
      EXPECT_EQ(converter.Convert(data, true), data);
    }
  }
}

}  // namespace
}  // namespace tarn::segmenter
