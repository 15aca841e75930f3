#include "tarnvte/direct_stream.h"

namespace LibTarnVTE {

DirectStream::DirectStream(const std::string& stream_id, const std::string& type)
    : VTEStream(stream_id, type) {}

DirectStream::~DirectStream() = default;

bool DirectStream::Close() { return CloseStreamCommon(); }

}  // namespace LibTarnVTE
