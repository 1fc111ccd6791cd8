#pragma once

#include <cstdint>

/// One packet of a side index: the seven fields of its record.
struct PacketRecord {
  int stream_index = 0;
  int64_t position = 0;  ///< offset in the movie; 0 = directly after the previous packet
  int size = 0;
  int64_t pts_delta = 0;
  int64_t dts_delta = 0;  ///< 0 = the same as pts
  int64_t duration = 0;
  int key_flag = 0;
};

/// Takes records from a body line one after another. The text may hold anything.
class RecordReader {
 public:
  /// @param line     terminated text, kept by the caller
  /// @param version  1 or 2, the form of the records
  RecordReader(const char* line, int version) : m_next(line), m_version(version) {}

  /// @return false at the end of the line, and for good at a record that cannot be read
  bool next(PacketRecord* record);
  /// The record that could not be read, with what stands behind it; null when there was none.
  const char* damaged() const { return m_damaged; }
  /// What of the line stands behind the record read last.
  const char* rest() const { return m_next; }

 private:
  bool parse_v1(PacketRecord* record) const;
  bool parse_v2(PacketRecord* record) const;

  const char* m_next;
  const char* m_damaged = nullptr;
  int m_version;
};
