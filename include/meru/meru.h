/// @file meru.h
/// The whole interface of MeruLib. Needs no FFmpeg header.
#ifndef MERU_MERU_H
#define MERU_MERU_H

#include "meru/export.h"
#include "meru/log.h"
#include "meru/movie_info.h"
#include "meru/raw_packets.h"
#include "meru/recording.h"
#include "meru/repair.h"
#include "meru/session.h"

#endif
