// confine.h - a second wall around the folder that the box serves.
#pragma once

namespace plexa::box {

// From here on this thread, and every thread that it starts, reaches no file outside the folder,
// whatever path it opens (Landlock). Files that are open stay so. False, with errno, where the
// kernel has no such means; then the checks of Root stand alone.
bool confine(int folder);

}  // namespace plexa::box
