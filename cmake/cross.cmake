# What the builds for other processors have in common: the compiler's name,
# where the libraries lie, and the emulator that runs the programs.
set(CMAKE_C_COMPILER ${CMAKE_LIBRARY_ARCHITECTURE}-gcc)
set(CMAKE_CXX_COMPILER ${CMAKE_LIBRARY_ARCHITECTURE}-g++)
set(CMAKE_STRIP ${CMAKE_LIBRARY_ARCHITECTURE}-strip CACHE STRING "")
set(CMAKE_FIND_ROOT_PATH /usr/${CMAKE_LIBRARY_ARCHITECTURE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# The loader is named: an emulator that is told where to look for it looks
# there for every other path as well, and /bin is found where it is not.
set(CMAKE_CROSSCOMPILING_EMULATOR
    ${cross_emulator} ${CMAKE_FIND_ROOT_PATH}/lib/${cross_loader}
    --library-path ${CMAKE_FIND_ROOT_PATH}/lib)
