// The calls that use the engine. See each in its file; all are for a worker, a single-threaded
// process.
//
// Streams are named by identifier and kind word ("HLS", "SS", "WEBM", "HTTP"). Words of refusals
// are the engine's (libtarnvte.h) and, beside "failed":
//   "not-playable"     no video, or one whose duration or output nobody can tell
//   "no-such-stream"   the identifier or kind is none
//   "stream-ended"     its working directory is gone
//   "no-such-fragment", "no-such-subtitle"
//   "superseded"       a newer seek of somebody ended the wait
//   "bad-range"        the position lies behind the end, or no byte has a time
#pragma once

#include <vector>

#include "backend/work/calls.h"

namespace tarnbackend {

// "prepare", "playlist", "fragment", "bytes", "subtitle", "close", "sweep", "registry", "platform".
std::vector<Call> EngineCalls();

// {path, kind, profile_file, profile_key, audio: a track's id or "", subtitle: "all", a subtitle's
// id, "none" or "" (HLS), device, stream_id: chosen by the caller, or "" for a new one,
// pre_analysis, request: {url, format, api, method, version, token}, subtitle_params: {url, id,
// uid,
// ...}}: prepares a stream. Its result: {stream_id, directory, duration: seconds, copied: the video
// is not encoded, planned: fragments follow keyframes, segment_seconds, fragments: how many,
// subtitles: [{id, language}], predicted_size: bytes, 0 where it is not known, and bit_rate: bits
// per second, -1 where it is not known (both HTTP)}. Of a stream that is refused nothing is left. A
// progressive stream is refused at once when there is no room ("TransEnable").
CallResult PrepareCall(const Json::Value& arguments);

// {stream_id, kind, type: "video", "subtitle" or "", subtitle_id} -> {path} of a playlist or
// manifest.
CallResult PlaylistCall(const Json::Value& arguments);

// {stream_id, kind: "HLS" or "SS", fragment} -> {path, restarted: a new run was started for it},
// and the open file as descriptor: a later seek may remove its name at any time. Waits until the
// fragment is whole, at most a minute.
CallResult FragmentCall(const Json::Value& arguments);

// {stream_id, kind: "WEBM" or "HTTP", start: seconds, or offset: byte (HTTP)} -> {start: seconds},
// and the pipe to read from as descriptor. Ends the run before. A worker runs it once: the engine
// may come back a second time in a copy of the process.
CallResult BytesCall(const Json::Value& arguments);

// {source, subtitle_id, start, end, code_page}, as WebVttRequest -> the WebVTT text as bytes.
CallResult SubtitleCall(const Json::Value& arguments);

// {stream_id, kind} -> {}; also when the stream is gone already. Waits until its transcoder ended.
CallResult CloseCall(const Json::Value& arguments);

// {idle_seconds} -> {removed}: working directories that nobody serves any more.
CallResult SweepCall(const Json::Value& arguments);

// {} -> {hardware: {running, limit, room}, software: {...}, transcoders: [{pid, hardware, offline,
// program, age}]}.
CallResult RegistryCall(const Json::Value& arguments);

// {} -> {platform: its word, hardware: it transcodes in hardware and may, gstreamer}.
CallResult PlatformCall(const Json::Value& arguments);

}  // namespace tarnbackend
