#include "tarnvte/md5.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string_view>

#include "base/file_io.h"
#include "base/log.h"
#include "base/unique_fd.h"

namespace LibReelbay {
namespace {

constexpr char kLogUnit[] = "md5";

class Digest {
 public:
  Digest() : context_(EVP_MD_CTX_new(), &EVP_MD_CTX_free) {
    good_ = context_ != nullptr && EVP_DigestInit_ex(context_.get(), EVP_md5(), nullptr) == 1;
  }

  void Add(std::string_view data) {
    good_ = good_ && EVP_DigestUpdate(context_.get(), data.data(), data.size()) == 1;
  }

  // Empty where the library offers no MD5.
  std::string Text() {
    unsigned char bytes[EVP_MAX_MD_SIZE];
    unsigned size = 0;
    if (!good_ || EVP_DigestFinal_ex(context_.get(), bytes, &size) != 1) return "";
    constexpr char kHex[] = "0123456789abcdef";
    std::string text;
    for (unsigned i = 0; i < size; ++i) {
      text += kHex[bytes[i] >> 4];
      text += kHex[bytes[i] & 0xf];
    }
    return text;
  }

 private:
  std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context_;
  bool good_;
};

}  // namespace

std::string GetMD5(const std::string& data) {
  Digest digest;
  digest.Add(data);
  return digest.Text();
}

std::string GetFileMD5(const std::string& path) {
  const tarn::UniqueFd fd(tarn::OpenRetry(path.c_str(), O_RDONLY | O_NONBLOCK));
  if (!fd.valid()) {
    TARN_LOG_ERR("failed to open file");
    return "";
  }
  Digest digest;
  char buffer[65536];
  for (;;) {
    const ssize_t n = read(fd.get(), buffer, sizeof buffer);
    if (n == 0) return digest.Text();
    if (n > 0) {
      digest.Add({buffer, static_cast<size_t>(n)});
    } else if (errno != EINTR) {
      TARN_LOG_ERR("failed to read content");
      return "";
    }
  }
}

}  // namespace LibReelbay
