#include <cxxabi.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "meru/meru.h"
#include "support/run_command.h"

namespace {

/// The exported functions with the parameter lists that a C++ host links against.
const std::vector<std::string>& functions() {
  static const std::vector<std::string> list = {
    "MERU_Log_On(char const*)",
    "MERU_Log_On2(_IO_FILE*)",
    "MERU_Log_Level(int)",
    "MERU_Log_Off()",
    "MERU_start(MovieInfo_ const&, void (*)(int, char const*, void*), void*, MovieInfo_*, bool)",
    "MERU_stop(void**)",
    "MERU_pause(void*)",
    "MERU_resume(void*)",
    "MERU_is_paused(void*)",
    "MERU_movie_time(void*)",
    "MERU_write_video_bgra(void*, void*, int, long long, int)",
    "MERU_write_audio_pcm(void*, void*, int, long long)",
    "MERU_write_video_frame(void*, AVFrame*, AVRational const&)",
    "MERU_write_audio_frame(void*, AVFrame*, AVRational const&)",
    "MERU_add_audio_filter(void*, FilterBase*)",
    "MERU_add_video_filter(void*, FilterBase*)",
    "MERU_audio_dst_frame(void*)",
    "MERU_video_dst_frame(void*)",
    "MERU_get_mInfo(void*, MovieInfo_*)",
    "MERU_current_sys_usec()",
    "MERU_last_usec_pts(void*)",
    "MERU_generate_testing_vFrame(void*, AVRational const&)",
    "MERU_generate_testing_aFrame(void*, AVRational const&)",
#if __has_include("meru/raw_packets.h")
    "MERU2_start(MovieInfo2 const&, void (*)(int, char const*, void*), void*)",
    "MERU2_write_video_packet(void*, void*, int, long long)",
    "MERU2_write_audio_packet(void*, void*, int, long long)",
    "MERU2_stop(void**)",
#endif
#if __has_include("meru/repair.h")
    "MERU_StartRepair_Async(char const*, char const*, char const*, void (*)(double, int, char const*, void*), void*)",
    "MERU_StartRepair_sync(char const*, char const*, char const*, void (*)(double, int, char const*, void*), void*)",
    "MERU_StopRepair(void**)",
    "MERU_Repair_IsRunning(void*)",
#endif
  };
  return list;
}

/// What a host may use of classes. The parameters are left out: a va_list is spelled differently on each machine.
const std::set<std::string> kMembers = {
    "nuv::Logger::instance",    "nuv::Logger::redirect",         "nuv::Logger::write",       "nuv::Logger::write2",
    "nuv::Logger::now",         "nuv::Logger::make_prefix",      "nuv::Logger::~Logger",     "vtable for nuv::Logger",
    "typeinfo for nuv::Logger", "typeinfo name for nuv::Logger", "MovieInfo_::hasRtmpStream"};

std::string without_parameters(const std::string& name) { return name.substr(0, name.find('(')); }

std::string demangled(const std::string& symbol) {
  int status = 0;
  const std::unique_ptr<char, decltype(&std::free)> name(abi::__cxa_demangle(symbol.c_str(), nullptr, nullptr, &status),
                                                         &std::free);
  return status == 0 ? name.get() : symbol;
}

/// The names that leave the library, as the linker sees them.
std::vector<std::string> exported() {
  const auto result = meru_test::run_command("nm -D --defined-only " + meru_test::quoted(MERU_LIBRARY));
  EXPECT_EQ(result.status, 0) << result.output;
  std::vector<std::string> names;
  std::istringstream lines(result.output);
  for (std::string address, type, name; lines >> address >> type >> name;)
    names.push_back(name.substr(0, name.find('@')));
  return names;
}

bool has(const std::vector<std::string>& names, const std::string& name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

TEST(ExportedSymbols, AreTheFunctionsInBothLinkages) {
  const std::vector<std::string> symbols = exported();
  std::vector<std::string> signatures;
  for (const std::string& symbol : symbols) signatures.push_back(demangled(symbol));
  for (const std::string& function : functions()) {
    EXPECT_TRUE(has(symbols, without_parameters(function))) << "no plain name of " << function;
    EXPECT_TRUE(has(signatures, function)) << "no C++ linkage of " << function;
  }
}

TEST(ExportedSymbols, IncludeTheMembersThatHostsUse) {
  std::set<std::string> found;
  for (const std::string& symbol : exported()) found.insert(without_parameters(demangled(symbol)));
  for (const std::string& member : kMembers) EXPECT_EQ(found.count(member), 1U) << member;
}

TEST(ExportedSymbols, AreNothingElse) {
  std::set<std::string> allowed;
  for (const std::string& function : functions()) {
    allowed.insert(function);
    allowed.insert(without_parameters(function));
  }
  const std::vector<std::string> symbols = exported();
  ASSERT_FALSE(symbols.empty());
  for (const std::string& symbol : symbols) {
    const std::string name = demangled(symbol);
    EXPECT_TRUE(allowed.count(name) == 1 || kMembers.count(without_parameters(name)) == 1) << name;
  }
}

}  // namespace
