#include "y4m.h"

#include <cstdio>
#include <sstream>

#include "failure.h"

namespace meru_tool {

namespace {

constexpr size_t kMaxHeader = 1023;
constexpr const char* kMagic = "YUV4MPEG2";
constexpr int kMaxSide = 16384;

struct Layout {
  const char* name;
  int pix_fmt;
};

// 4:2:0 comes under several names that differ only in where the chroma samples sit.
constexpr Layout kLayouts[] = {{"420", 0}, {"420jpeg", 0}, {"420mpeg2", 0}, {"420paldv", 0}, {"422", 4}, {"444", 5}};

int pix_fmt_of(const std::string& name) {
  for (const Layout& layout : kLayouts) {
    if (name == layout.name) return layout.pix_fmt;
  }
  throw Failure("the layout C" + name + " is not one of 420, 420jpeg, 420mpeg2, 420paldv, 422, 444");
}

int number(const std::string& field) {
  int value = 0;
  if (std::sscanf(field.c_str() + 1, "%9d", &value) != 1) value = 0;
  return value;
}

void read_field(const std::string& field, VideoShape* shape) {
  switch (field[0]) {
    case 'W':
      shape->size.width = number(field);
      break;
    case 'H':
      shape->size.height = number(field);
      break;
    case 'F':
      if (std::sscanf(field.c_str(), "F%9d:%9d", &shape->fps_num, &shape->fps_den) != 2) shape->fps_den = 0;
      break;
    case 'C':
      shape->pix_fmt = pix_fmt_of(field.substr(1));
      break;
    case 'X':
      if (field == "XCOLORRANGE=FULL") shape->color_range = 2;
      if (field == "XCOLORRANGE=LIMITED") shape->color_range = 1;
      break;
    default:  // interlacing and the shape of a pixel have no place in the recording
      break;
  }
}

VideoShape parse_header(const std::string& line) {
  std::istringstream words(line);
  std::string field;
  if (!(words >> field) || field != kMagic) throw Failure("it does not begin with YUV4MPEG2");
  VideoShape shape;
  shape.pix_fmt = 0;
  shape.fps_num = 0;
  while (words >> field) read_field(field, &shape);
  if (shape.size.width < 2 || shape.size.height < 2 || shape.size.width > kMaxSide || shape.size.height > kMaxSide) {
    throw Failure("its header gives no usable size");
  }
  if (shape.fps_num <= 0 || shape.fps_den <= 0 || shape.fps_num / shape.fps_den > 1000) {
    throw Failure("its header gives no usable frame rate");
  }
  return shape;
}

}  // namespace

VideoShape read_y4m_header(ByteSource* source) {
  std::string line;
  const bool whole = source->read_line(&line, kMaxHeader);
  if (!source->error().empty()) throw Failure("cannot read " + source->name() + ": " + source->error());
  if (line.empty() && !whole) throw Failure("cannot record " + source->name() + ": it is empty");
  try {
    return parse_header(line);
  } catch (const Failure& e) {
    throw Failure("cannot record " + source->name() + ": " + e.what());
  }
}

}  // namespace meru_tool
