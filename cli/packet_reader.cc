#include "packet_reader.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "command.h"
#include "text.h"

namespace tarncli {
namespace {

constexpr char kReader[] = "/usr/bin/ffprobe";
constexpr char kFields[] =
    "packet=stream_index,codec_type,pts_time,dts_time,duration_time,size,flags"
    ":stream=codec_type,width:format=start_time";
constexpr int kPollMs = 200;
constexpr size_t kMostComplaint = 4096;

// Calls `take` with the key and the value of each field of "section|key=value|key=value".
template <typename Take>
void ForEachField(std::string_view line, Take take) {
  while (!line.empty()) {
    const std::string_view field = line.substr(0, line.find('|'));
    line.remove_prefix(std::min(line.size(), field.size() + 1));
    const size_t equals = field.find('=');
    if (equals != std::string_view::npos) {
      take(field.substr(0, equals), std::string(field.substr(equals + 1)));
    }
  }
}

bool ParseSeconds(const std::string& text, double& seconds) {
  char* end = nullptr;
  const double value = std::strtod(text.c_str(), &end);
  if (end == text.c_str()) return false;  // "N/A"
  seconds = value;
  return true;
}

// The program, for the object's lifetime.
class Reader {
 public:
  explicit Reader(const std::string& path) {
    std::array<int, 2> out;
    std::array<int, 2> err;
    if (pipe2(out.data(), O_CLOEXEC) != 0) throw Failed(errno);
    if (pipe2(err.data(), O_CLOEXEC) != 0) throw Failed(errno);
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&files, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&files, err[1], STDERR_FILENO);
    std::string input = "file:" + path;
    std::array<const char*, 9> words = {kReader, "-v",      "error",       "-show_entries", kFields,
                                        "-of",   "compact", input.c_str(), nullptr};
    const int error = posix_spawn(&pid_, kReader, &files, nullptr,
                                  const_cast<char* const*>(words.data()), environ);
    posix_spawn_file_actions_destroy(&files);
    close(out[1]);
    close(err[1]);
    fds_ = {pollfd{out[0], POLLIN, 0}, pollfd{err[0], POLLIN, 0}};
    if (error != 0) {
      CloseAll();
      throw Failed(error);
    }
  }
  ~Reader() {
    CloseAll();
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    Reap();
  }
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  // Reads to the end of both outputs.
  template <typename Take>
  void ReadLines(const Interrupts& interrupts, Take take) {
    std::string rest;
    while (fds_[0].fd >= 0 || fds_[1].fd >= 0) {
      interrupts.Check();
      if (poll(fds_.data(), fds_.size(), kPollMs) <= 0) continue;
      if (fds_[0].revents != 0) ReadSome(fds_[0], rest);
      if (fds_[1].revents != 0) ReadSome(fds_[1], errors_);
      if (errors_.size() > kMostComplaint) errors_.resize(kMostComplaint);
      size_t begin = 0;
      for (size_t end; (end = rest.find('\n', begin)) != std::string::npos; begin = end + 1) {
        take(rest.substr(begin, end - begin));
      }
      rest.erase(0, begin);
    }
  }

  // What the program said was wrong, once it has ended.
  std::string Complaint() {
    const int status = Reap();
    if (!errors_.empty()) return Printable(errors_.substr(0, errors_.find('\n')));
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return "";
    return WIFSIGNALED(status)
               ? "the reader was killed by signal " + std::to_string(WTERMSIG(status))
               : "the reader failed";
  }

 private:
  static Failure Failed(int error) {
    return {Exit::kFailure, std::string(kReader) + ": " + std::strerror(error), ""};
  }

  static void ReadSome(pollfd& from, std::string& to) {
    static char buffer[64 * 1024];
    const ssize_t got = read(from.fd, buffer, sizeof buffer);
    if (got < 0 && (errno == EINTR || errno == EAGAIN)) return;
    if (got > 0) {
      to.append(buffer, static_cast<size_t>(got));
      return;
    }
    close(from.fd);
    from.fd = -1;
  }

  int Reap() {
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    return status;
  }

  void CloseAll() {
    for (pollfd& end : fds_) {
      if (end.fd >= 0) close(end.fd);
      end.fd = -1;
    }
  }

  pid_t pid_ = -1;
  std::array<pollfd, 2> fds_{pollfd{-1, 0, 0}, pollfd{-1, 0, 0}};
  std::string errors_;
};

}  // namespace

bool ParsePacket(const std::string& line, FilePacket& packet) {
  if (line.rfind("packet|", 0) != 0) return false;
  packet = {};
  bool has_dts = false;
  ForEachField(line, [&](std::string_view key, const std::string& value) {
    if (key == "stream_index") packet.stream = std::atoi(value.c_str());
    if (key == "codec_type") packet.video = value == "video";
    if (key == "codec_type") packet.audio = value == "audio";
    if (key == "pts_time") packet.has_pts = ParseSeconds(value, packet.pts);
    if (key == "dts_time") has_dts = ParseSeconds(value, packet.dts);
    if (key == "duration_time") ParseSeconds(value, packet.duration);
    if (key == "size") packet.size = std::strtoull(value.c_str(), nullptr, 10);
    if (key == "flags") packet.key = value.find('K') != std::string::npos;
    if (key == "flags") packet.discarded = value.find('D') != std::string::npos;
  });
  if (!has_dts) packet.dts = packet.pts;
  return true;
}

FileReading ReadPackets(const std::string& path, const Interrupts& interrupts,
                        const std::function<void(const FilePacket&)>& take) {
  FileReading reading;
  Reader reader(path);
  bool any_picture = false;
  bool unknown_size = false;
  reader.ReadLines(interrupts, [&](const std::string& line) {
    FilePacket packet;
    if (ParsePacket(line, packet)) {
      any_picture = any_picture || packet.video;
      take(packet);
    } else if (line.rfind("format|", 0) == 0) {
      ForEachField(line, [&](std::string_view, const std::string& value) {
        ParseSeconds(value, reading.start_time);
      });
    } else if (line == "stream|codec_type=video|width=0") {
      unknown_size = true;
    }
  });
  reading.complaint = reader.Complaint();
  if (reading.complaint.empty() && any_picture && unknown_size) {
    reading.complaint = "the video's parameters are not in it";
  }
  return reading;
}

}  // namespace tarncli
