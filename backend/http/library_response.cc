#include "backend/http/library_response.h"

#include <memory>
#include <new>
#include <utility>

#include "backend/http/call.h"
#include "backend/http/gzip.h"

namespace tarnbackend::http {
namespace {

using Text = std::shared_ptr<const std::string>;

MHD_Response* FromText(Text text, uint64_t first, uint64_t length) {
  // The library only reads it.
  char* data = const_cast<char*>(text->data()) + first;
  auto holder = std::make_unique<Text>(std::move(text));
  MHD_Response* response = MHD_create_response_from_buffer_with_free_callback_cls(
      length, data, [](void* held) { delete static_cast<Text*>(held); }, holder.get());
  if (response != nullptr) holder.release();
  return response;
}

MHD_Response* FromFile(FileBody& file, uint64_t first, uint64_t length) {
  if (length == 0) return FromText(std::make_shared<const std::string>(), 0, 0);
  MHD_Response* response = MHD_create_response_from_fd_at_offset64(length, file.fd.get(), first);
  if (response != nullptr) file.fd.release();
  return response;
}

// The library reads nothing of it: the headers of a body that is not sent.
MHD_Response* OnlyLength(uint64_t length) {
  return MHD_create_response_from_callback(
      length, 1,
      [](void*, uint64_t, char*, size_t) -> ssize_t { return MHD_CONTENT_READER_END_WITH_ERROR; },
      nullptr, nullptr);
}

MHD_Response* FromPipe(Call& call) {
  constexpr size_t kBlock = 32 * 1024;
  return MHD_create_response_from_callback(
      MHD_SIZE_UNKNOWN, kBlock,
      [](void* self, uint64_t, char* buffer, size_t size) {
        return static_cast<Call*>(self)->ReadPipe(buffer, size);
      },
      &call, nullptr);
}

// The text that is sent, in whichever form; null when the body is none.
Text TextOf(const Answer& answer, Response& response) {
  switch (answer.body) {
    case Answer::Body::kGzip:
      return response.gzip;
    case Answer::Body::kCompress:
      return std::make_shared<const std::string>(Gzip(std::get<std::string>(response.body)));
    case Answer::Body::kText:
      return std::make_shared<const std::string>(answer.text);
    default:
      break;
  }
  auto* text = std::get_if<std::string>(&response.body);
  return text == nullptr ? nullptr : std::make_shared<const std::string>(std::move(*text));
}

}  // namespace

LibraryResponse MakeLibraryResponse(const Answer& answer, Response& response, Call& call,
                                    bool with_body) {
  LibraryResponse made;
  if (const Text text = TextOf(answer, response)) {
    const bool plain = answer.body == Answer::Body::kPlain;
    made.length = plain ? answer.length : text->size();
    made.response =
        with_body ? FromText(text, plain ? answer.first : 0, made.length) : OnlyLength(made.length);
  } else if (auto* file = std::get_if<FileBody>(&response.body)) {
    made.length = answer.length;
    made.response =
        with_body ? FromFile(*file, answer.first, answer.length) : OnlyLength(answer.length);
  } else {
    made.response = with_body ? FromPipe(call) : OnlyLength(MHD_SIZE_UNKNOWN);
  }
  if (made.response == nullptr) throw std::bad_alloc();
  for (const auto& [name, value] : answer.headers) {
    MHD_add_response_header(made.response, name.c_str(), value.c_str());
  }
  return made;
}

}  // namespace tarnbackend::http
