// Name, version and notice: constants of the build.
#include <veliaxdr/libveliaxdr.h>

#include <support/imsg.h>

namespace {

constexpr char verid_format[] = "%-*s %s (%s) %s\n";
constexpr int name_width = 33;
constexpr char name[] = "libveliaxdr";
constexpr char version[] = "11.0.0.1";
constexpr char build_time[] = "Tue May 28 13:33:43 2024";
constexpr char word_size[] = "64-bit";

constexpr const char *notice[] = {
    "----------------------------------------------------------------------",
    " libveliaxdr: client library of the Velia version-control suite       ",
    " Copyright the libveliaxdr authors. All rights reserved.              ",
    "                                                                      ",
    " Licensed under the Apache License, Version 2.0. You may not use this ",
    " library except in compliance with the License. It is distributed     ",
    " WITHOUT WARRANTIES OR CONDITIONS OF ANY KIND, either express or      ",
    " implied. See the License for what it permits and limits.             ",
    "----------------------------------------------------------------------",
    nullptr,
};

} // namespace

void libveliaxdr_print_verid(void) {
    imsg_print(IMSG_PLAIN, verid_format, IMSG_FORMAT, name_width, name, version, build_time, word_size);
}

int libveliaxdr_sprintf_verid(char *buffer) {
    return imsg_sprintf(buffer, verid_format, IMSG_FORMAT, name_width, name, version, build_time, word_size);
}

const char *const *libveliaxdr_copyright_array(void) {
    return notice;
}
