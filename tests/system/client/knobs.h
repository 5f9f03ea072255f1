// A client that writes one setting of the site again and again.
#pragma once

#include <string>

// Writes numbers from `first` on, so many of them, as the site's value of the setting, and prints
// "done N failed N stale N" at the end. False for a setting that is none, or a write that failed in another way than
// one does when somebody else is quicker: stale for the tenth time, or with an entry gone that it was about to remove.
bool write_knob(const std::string &name, int first, int count);
