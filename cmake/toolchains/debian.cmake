# Cross build on Debian with the compiler and the libraries of another architecture. Included by a file
# that has set ESG_TRIPLET and CMAKE_SYSTEM_PROCESSOR; docs/integrating.md lists the packages.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${ESG_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${ESG_TRIPLET}-g++)
set(PKG_CONFIG_EXECUTABLE ${ESG_TRIPLET}-pkg-config)
set(CMAKE_LIBRARY_ARCHITECTURE ${ESG_TRIPLET})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
