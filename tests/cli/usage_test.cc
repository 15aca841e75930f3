// Help, usage errors and what they look like.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "run_command.h"

namespace {

using tarn_test::ParseJson;
using tarn_test::Result;
using tarn_test::Tarnvte;
using ::testing::HasSubstr;
using ::testing::StartsWith;

TEST(Usage, HelpListsSubcommandsAndExitStatuses) {
  const Result result = Tarnvte({"--help"});
  EXPECT_EQ(0, result.status);
  for (const char* word :
       {"probe", "plan", "stream", "playlist", "segment", "registry", "doctor", "serve",
        "Exit status", "7 the transcoder failed", "8 segments", "130 or 143 interrupted"}) {
    EXPECT_THAT(result.out, HasSubstr(word));
  }
}

TEST(Usage, EverySubcommandExplainsItselfWithExamples) {
  for (const char* name :
       {"probe", "plan", "stream", "playlist", "segment", "registry", "doctor", "serve"}) {
    const Result result = Tarnvte({name, "--help"});
    EXPECT_EQ(0, result.status) << name;
    EXPECT_THAT(result.out, HasSubstr(std::string("Usage: tarnvte ") + name));
    EXPECT_THAT(result.out, HasSubstr(std::string("Examples:\n  tarnvte ") + name));
    EXPECT_EQ("", result.err);
  }
}

TEST(Usage, VersionIsOneLine) {
  const Result result = Tarnvte({"--version"});
  EXPECT_EQ(0, result.status);
  EXPECT_THAT(result.out, ::testing::MatchesRegex("tarnvte [0-9]+\\.[0-9]+\\.[0-9]+\n"));
}

TEST(Usage, WrongUsageIsStatus2AndOneLine) {
  const std::vector<std::vector<std::string>> wrong = {
      {},
      {"frobnicate"},
      {"probe"},
      {"probe", "a", "b"},
      {"probe", "--json", "--pretty", "a"},
      {"plan", "a", "--kind", "AVI"},
      {"plan", "a", "--kind", "HLS", "--start", "5"},
      {"plan", "a", "--fragment", "1"},
      {"plan", "a", "--pre-analysis"},
      {"stream", "a", "--kind", "SS"},
      {"stream", "a", "--kind", "HLS"},
      {"stream", "a", "--kind", "HLS", "-o", "/tmp/out", "--start", "5"},
      {"stream", "a", "--pre-analysis", "-o", "/tmp/out"},
      {"playlist", "a", "--which", "index"},
      {"playlist", "a", "--subtitle", "all", "--which", "video", "-o", "/tmp/out"},
      {"segment", "a"},
      {"segment", "a", "--fragment", "-1"},
      {"segment", "a", "--fragment", "x"},
      {"segment", "a", "--fragment", "2147483648"},
      {"segment", "a", "--fragment", "1", "--verify"},
      {"segment", "a", "--fragment", "1", "--json"},
      {"segment", "a", "--fragment", "1", "--from", "1"},
      {"segment", "a", "--verify", "-o", "/tmp/out"},
      {"segment", "a", "--verify", "--from", "1,x"},
      {"segment", "a", "--verify", "--from", "1", "--seed", "2"},
      {"stream", "a", "--start", "-1"},
      {"stream", "a", "--start", "soon"},
      {"registry", "--older-than", "5"},
  };
  for (const auto& arguments : wrong) {
    const Result result = Tarnvte(arguments);
    SCOPED_TRACE(::testing::PrintToString(arguments));
    EXPECT_EQ(2, result.status);
    EXPECT_THAT(result.err, StartsWith("tarnvte: "));
    EXPECT_EQ(1, std::count(result.err.begin(), result.err.end(), '\n')) << result.err;
  }
}

TEST(Usage, UnknownSubcommandIsNamed) {
  EXPECT_EQ("tarnvte: there is no subcommand frobnicate (see --help)\n",
            Tarnvte({"frobnicate"}).err);
  EXPECT_EQ("tarnvte: A subcommand is required (see --help)\n", Tarnvte({}).err);
}

TEST(Usage, FailuresAreAlsoJsonWhereJsonWasAskedFor) {
  const Result usage = Tarnvte({"probe", "--json", "--nonsense", "a"});
  EXPECT_EQ(2, usage.status);
  EXPECT_EQ("Usage", ParseJson(usage.out)["error"].asString());
  const Result missing = Tarnvte({"probe", "--json", "nowhere.mkv"});
  EXPECT_EQ(3, missing.status);
  EXPECT_EQ("File", ParseJson(missing.out)["error"].asString());
  EXPECT_EQ("nowhere.mkv: No such file or directory", ParseJson(missing.out)["message"].asString());
  EXPECT_EQ("tarnvte: nowhere.mkv: No such file or directory\n", missing.err);
}

TEST(Usage, EveryFileThatIsNoVideoIsStatus3) {
  tarn_test::WriteFile("/tmp/text.mkv", "not a video at all\n");
  tarn_test::WriteFile("/tmp/empty.mkv", "");
  const std::vector<std::vector<std::string>> commands = {
      {"probe"},
      {"plan"},
      {"plan", "--kind", "HLS"},
      {"stream"},
      {"stream", "--kind", "HLS", "-o", "/tmp/out"},
      {"playlist"},
      {"segment", "--fragment", "0"},
      {"segment", "--verify"},
  };
  for (const std::vector<std::string>& command : commands) {
    for (const char* file :
         {"/tmp/text.mkv", "/tmp/empty.mkv", "/tmp", "/dev/null", "/tmp/missing.mkv"}) {
      SCOPED_TRACE(::testing::PrintToString(command) + " " + file);
      std::vector<std::string> arguments = command;
      arguments.push_back(file);
      const Result result = Tarnvte(arguments);
      EXPECT_EQ(3, result.status);
      EXPECT_EQ("", result.out);
      EXPECT_THAT(result.err, StartsWith(std::string("tarnvte: ") + file + ": "));
    }
  }
  EXPECT_THAT(tarn_test::WorkingDirectories(), ::testing::IsEmpty());
}

TEST(Usage, ControlBytesOfNamesDoNotReachTheTerminal) {
  const Result result = Tarnvte({"probe", "/tmp/\033[31mred\n.mkv"});
  EXPECT_EQ(3, result.status);
  EXPECT_EQ("tarnvte: /tmp/?[31mred?.mkv: No such file or directory\n", result.err);
}

}  // namespace
