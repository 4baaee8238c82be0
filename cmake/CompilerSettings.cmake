# The language level for all targets; warnings and sanitizers for the targets of this project.

set(CMAKE_C_STANDARD 99)
set(CMAKE_C_STANDARD_REQUIRED ON)
set(CMAKE_C_EXTENSIONS OFF)
set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
# Without it, a 32-bit program cannot read a folder whose inodes or positions need 64 bits.
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  add_compile_definitions(_FILE_OFFSET_BITS=64)
endif()

# Link it privately to get the project's warnings.
add_library(esg-client-compiler-settings INTERFACE)
target_compile_options(esg-client-compiler-settings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion
  $<$<BOOL:${ESG_WARNINGS_AS_ERRORS}>:-Werror>)
# On 32-bit ARM, GCC notes at each use of some templates that GCC 7 changed how they are passed.
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
  target_compile_options(esg-client-compiler-settings INTERFACE
    $<$<COMPILE_LANG_AND_ID:CXX,GNU>:-Wno-psabi>)
endif()

if(ESG_SANITIZE)
  add_compile_options(
    -fsanitize=${ESG_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${ESG_SANITIZE})
endif()
