// What the launcher knows about containers and codecs: which GStreamer elements read, decode and
// hold them. Pure tables.
#pragma once

#include <string>
#include <string_view>

#include "transcoder/gst/options.h"

namespace tarn::gst {

// A stream's or file's type as GStreamer names it: the name of its caps, and what tells its kinds
// apart.
struct StreamType {
  std::string name;
  int version = 0;  // mpegversion, wmvversion and their like; 0 where there is none
  int layer = 0;    // of MPEG-1 audio

  bool operator==(const StreamType&) const = default;
};

// The version that this table gives to the advanced profile of version 3.
inline constexpr int kVc1Version = 4;

enum class FileKind {
  kContainer,  // `demuxer` reads it
  kList,       // it names other files or places of the network
  kSound,      // it holds sound alone
  kOther,      // nothing that the launcher reads
};

// What a demuxer's time stamps are.
enum class TimeStamps {
  kStream,    // times in the segments that it announces
  kEdited,    // the same, and what lies before the first segment's start is not shown
  kFile,      // times as they stand in the file, whatever the segments say; it searches from the
              // file's first time stamp on
  kDecoding,  // of pictures, when they are decoded; the order tells when they are shown
};

struct FileReader {
  FileKind kind = FileKind::kOther;
  const char* demuxer = nullptr;
  TimeStamps times = TimeStamps::kStream;
};

// By a file's type. Only what is listed is read: whatever opens other files never comes to run.
FileReader ReaderOf(std::string_view type);

struct CodecElements {
  const char* parser = nullptr;   // null where the stream needs none
  const char* decoder = nullptr;  // null where nothing is there to decode (raw)
};

// Null where the type is unknown.
const CodecElements* ElementsOf(const StreamType& type);

// The container can hold the stream as it is.
bool Holds(Container container, const StreamType& type);

}  // namespace tarn::gst
