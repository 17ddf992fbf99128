# Warnings and sanitizers for every target of this project.
option(FSETRESTORE_WERROR "treat warnings as errors" OFF)
set(FSETRESTORE_SANITIZE "" CACHE STRING "value for -fsanitize=, empty for none")

add_compile_options(-Wall -Wextra -Wformat=2 -Wformat-nonliteral -Wshadow -Wundef)
add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor>)
# g++ 12 falsely reports an overlap in std::string's operator+.
add_compile_options($<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>)
add_compile_definitions(_GNU_SOURCE _FILE_OFFSET_BITS=64)
if(FSETRESTORE_WERROR)
  add_compile_options(-Werror)
endif()
if(FSETRESTORE_SANITIZE)
  add_compile_options(-fsanitize=${FSETRESTORE_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${FSETRESTORE_SANITIZE})
endif()

# Link the C++ runtime statically: a restore starts many short processes, and relocating the shared runtime takes half
# of a process start. Not with sanitizers, which need the shared runtime, and not in tests, which link GoogleTest.
if(FSETRESTORE_SANITIZE)
  set(FSETRESTORE_CXX_RUNTIME "")
else()
  set(FSETRESTORE_CXX_RUNTIME -static-libstdc++ -static-libgcc)
endif()
