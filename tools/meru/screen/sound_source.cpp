#include "screen/sound_source.h"

#include <utility>

#ifdef MERU_HAS_PULSE
#include "screen/pulse_sound.h"
#else
#include "failure.h"
#endif

namespace meru_tool {

#ifdef MERU_HAS_PULSE

std::unique_ptr<SoundSource> open_sound(const std::string& device, const SoundFormat& format, SoundListener listener) {
  return std::make_unique<PulseSound>(device, format, std::move(listener));
}

#else

std::unique_ptr<SoundSource> open_sound(const std::string& device, const SoundFormat&, SoundListener) {
  throw Failure("cannot record sound from " + device + ": this meru was built without libpulse");
}

#endif

}  // namespace meru_tool
