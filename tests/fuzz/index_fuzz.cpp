// The index parser and the record reader on any file.
#include <cstdint>
#include <cstring>

#include "MVRepair/restore/moov_parser.h"
#include "MVRepair/restore/packet_record.h"
#include "fuzz/fuzzing.h"

namespace {

void read_records(const char* line, int version) {
  RecordReader reader(line, version);
  PacketRecord record;
  size_t left = strlen(line);
  while (reader.next(&record)) {
    const size_t rest = strlen(reader.rest());
    meru_fuzz::require(rest < left, "every record takes something of the line");
    left = rest;
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  meru_fuzz::be_quiet();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string path = meru_fuzz::folder().file("a.idx");
  meru_fuzz::write_file(path, reinterpret_cast<const char*>(data), size);
  MoovParser parser;
  if (!parser.start(path.c_str())) return 0;
  size_t lines = 0;
  while (const char* line = parser.readBody()) {
    meru_fuzz::require(parser.progress() >= 0.0 && parser.progress() <= 1.0, "progress is a part of the whole");
    meru_fuzz::require(++lines <= size, "every line takes something of the file");
    for (const int version : {1, 2}) read_records(line, version);
  }
  meru_fuzz::require(parser.progress() == 1.0, "the end is the whole");
  return 0;
}
