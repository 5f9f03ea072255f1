# Flags of every target of ours, carried by two interface libraries: velia_flags for all code, velia_library_flags for
# code of lib/, which lives without exceptions, RTTI and guarded statics because raises unwind by siglongjmp.
add_library(velia_flags INTERFACE)
target_compile_options(velia_flags INTERFACE -Wall -Wextra -Wconversion -Wshadow -Wimplicit-fallthrough -fno-omit-frame-pointer)
target_compile_definitions(velia_flags INTERFACE _GNU_SOURCE)
target_include_directories(velia_flags INTERFACE ${PROJECT_SOURCE_DIR}/include)
if(VELIA_TESTS)
  target_compile_definitions(velia_flags INTERFACE VELIA_CHECK_INVARIANTS)
endif()
if(VELIA_WERROR)
  target_compile_options(velia_flags INTERFACE -Werror)
endif()

# A target with the property VELIA_TEST_BODY holds tests, not what they test: it is compiled as cheaply as it can be, and
# with the same flags in every preset that can, so that a cache of objects has it already.
set(VELIA_IS_TEST_BODY $<BOOL:$<TARGET_PROPERTY:VELIA_TEST_BODY>>)
set(VELIA_IS_PRODUCT $<NOT:${VELIA_IS_TEST_BODY}>)
separate_arguments(VELIA_PRODUCT_FLAGS)
separate_arguments(VELIA_TEST_FLAGS)
target_compile_options(velia_flags INTERFACE "$<IF:${VELIA_IS_TEST_BODY},${VELIA_TEST_FLAGS},${VELIA_PRODUCT_FLAGS}>")
target_link_options(velia_flags INTERFACE "$<${VELIA_IS_TEST_BODY}:${VELIA_TEST_FLAGS}>")
if(VELIA_SANITIZE)
  target_compile_options(velia_flags INTERFACE
    "$<${VELIA_IS_PRODUCT}:-fsanitize=${VELIA_SANITIZE};-fno-sanitize-recover=all>")
  target_link_options(velia_flags INTERFACE -fsanitize=${VELIA_SANITIZE})
endif()

# Product code counts which of its lines and branches run, in whichever process and thread.
if(VELIA_COVERAGE)
  target_compile_options(velia_flags INTERFACE "$<${VELIA_IS_PRODUCT}:--coverage;-fprofile-update=atomic>")
  target_link_options(velia_flags INTERFACE --coverage)
  target_sources(velia_flags INTERFACE
    "$<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>:${PROJECT_SOURCE_DIR}/tests/coverage/whole_counts.c>")
endif()

# All code tells a fuzz harness which of its branches an input takes.
if(VELIA_FUZZ)
  target_compile_options(velia_flags INTERFACE -fsanitize=fuzzer-no-link)
  target_link_options(velia_flags INTERFACE -fsanitize=fuzzer-no-link)
endif()

add_library(velia_library_flags INTERFACE)
target_link_libraries(velia_library_flags INTERFACE velia_flags)
target_compile_options(velia_library_flags INTERFACE
  $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti -fno-threadsafe-statics>)
target_include_directories(velia_library_flags INTERFACE ${PROJECT_SOURCE_DIR}/lib)
