# Compiler and linker flags of a fuzzing build (-DVANTU_FUZZ=ON, clang only). Every library is
# built with coverage hooks for libFuzzer and with AddressSanitizer and UndefinedBehaviorSanitizer,
# so that a bug anywhere below a target shows up as a crash of that target; the targets
# themselves add the fuzzer's main when they link.
if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  message(FATAL_ERROR "VANTU_FUZZ needs clang: configure with CC=clang CXX=clang++")
endif()
add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer
                    -fno-sanitize-recover=undefined)
add_link_options(-fsanitize=address,undefined)
