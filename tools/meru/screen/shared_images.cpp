#include "screen/shared_images.h"

#include <sys/ipc.h>
#include <sys/shm.h>

#include <cerrno>
#include <cstdint>

#include "failure.h"
#include "screen/xcb_reply.h"

namespace meru_tool {

SharedImages::SharedImages(xcb_connection_t* connection, size_t image_bytes, size_t places)
    : m_image_bytes(image_bytes), m_segment(xcb_generate_id(connection)) {
  const size_t bytes = image_bytes * places;
  if (bytes > UINT32_MAX) throw Failure("the region is too large");
  const int id = shmget(IPC_PRIVATE, bytes, IPC_CREAT | 0600);
  if (id < 0) throw Failure("no memory to share with the display: " + error_text(errno));
  void* memory = shmat(id, nullptr, 0);
  const bool mapped = reinterpret_cast<intptr_t>(memory) != -1;
  const XcbError error(mapped ? xcb_request_check(connection, xcb_shm_attach_checked(connection, m_segment,
                                                                                     static_cast<uint32_t>(id), 0))
                              : nullptr);
  // From here on the memory lives as long as somebody has it mapped.
  shmctl(id, IPC_RMID, nullptr);
  if (!mapped) throw Failure("no memory to share with the display: " + error_text(ENOMEM));
  m_memory = static_cast<uint8_t*>(memory);
  if (error == nullptr && xcb_connection_has_error(connection) == 0) return;
  shmdt(m_memory);
  throw Failure("the display does not share memory with this machine, as one that is reached over a network");
}

SharedImages::~SharedImages() { shmdt(m_memory); }

}  // namespace meru_tool
