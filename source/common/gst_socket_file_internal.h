// gst_socket_file_internal.h - what the front needs of the socket file beside its operations.
#pragma once

#include "gst-plexa/gst_pvr_file.h"

namespace plexa {

// Lets go of what a handle still holds whose last open was a socket file's: the connection of one
// that was not closed, the socket of a connect that failed. Says nothing to the box.
void socket_file_release(GstPvrFile *file);

}  // namespace plexa
