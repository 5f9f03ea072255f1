// What the waits of this layer ask of raises.
#pragma once

namespace velia::support {

// Whether a raise has been posted to the calling thread and waits for the end of its stretch.
bool raise_is_posted();

// The same, where the next pfm_enable is the one that delivers it.
bool raise_lands_next();

} // namespace velia::support
