# KVT64.DLL: the monitor's sources against mingw-w64's own Win32 headers, the
# string table as a real resource, and a .def that exports the entry table.
enable_language(RC)
add_compile_definitions(UNICODE _UNICODE WIN32_LEAN_AND_MEAN)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR})
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR})

add_library(KVT64 SHARED ${KVT_MONITOR_SOURCES}
            ${CMAKE_SOURCE_DIR}/resources/kvt64.rc
            ${CMAKE_SOURCE_DIR}/monitor/kvt64.def)
target_include_directories(KVT64 PRIVATE ${KVT_MONITOR_INCLUDES})
set_target_properties(KVT64 PROPERTIES PREFIX "" OUTPUT_NAME KVT64 SUFFIX ".DLL")
# No C++ runtime DLLs to ship beside the monitor.
target_link_options(KVT64 PRIVATE -static -static-libgcc -static-libstdc++)
target_link_libraries(KVT64 PRIVATE ws2_32 netapi32 winspool advapi32 user32 wtsapi32 kernel32)

# KVT64UI.DLL: the monitor's dialogs in the administrator's process, from the
# same dialog procedures and resources, reaching the monitor through XcvData.
add_library(KVT64UI SHARED
            ${CMAKE_SOURCE_DIR}/monui/monui.cpp
            ${CMAKE_SOURCE_DIR}/admin/configure.cpp
            ${CMAKE_SOURCE_DIR}/admin/portname.cpp
            ${CMAKE_SOURCE_DIR}/admin/addall.cpp
            ${CMAKE_SOURCE_DIR}/admin/message.cpp
            ${CMAKE_SOURCE_DIR}/discovery/availps.cpp
            ${CMAKE_SOURCE_DIR}/resources/kvt64.rc
            ${CMAKE_SOURCE_DIR}/monui/kvt64ui.def)
target_include_directories(KVT64UI PRIVATE ${KVT_MONITOR_INCLUDES})
set_target_properties(KVT64UI PROPERTIES PREFIX "" OUTPUT_NAME KVT64UI SUFFIX ".DLL")
target_link_options(KVT64UI PRIVATE -static -static-libgcc -static-libstdc++)
target_link_libraries(KVT64UI PRIVATE winspool ws2_32 user32 kernel32)

# kvtsetup.exe: the installer, one file holding both DLLs as resources.  Its
# kvtsetup.rc is generated with the paths of the built DLLs, and the resource
# object depends on them, so a rebuilt DLL rebuilds the installer.
set(KVT_SETUP_MANIFEST ${CMAKE_SOURCE_DIR}/installer/kvtsetup.manifest)
configure_file(${CMAKE_SOURCE_DIR}/installer/kvtsetup.rc.in
               ${CMAKE_BINARY_DIR}/installer/kvtsetup.rc.in @ONLY)
file(GENERATE OUTPUT ${CMAKE_BINARY_DIR}/installer/kvtsetup.rc
     INPUT ${CMAKE_BINARY_DIR}/installer/kvtsetup.rc.in)
add_executable(kvtsetup WIN32 ${CMAKE_SOURCE_DIR}/installer/kvtsetup.cpp
               ${CMAKE_BINARY_DIR}/installer/kvtsetup.rc)
# OBJECT_DEPENDS takes no generator expressions here: the DLLs by their place
# (CMAKE_RUNTIME_OUTPUT_DIRECTORY above), built first by add_dependencies.
set_source_files_properties(${CMAKE_BINARY_DIR}/installer/kvtsetup.rc PROPERTIES
  GENERATED TRUE
  OBJECT_DEPENDS "${CMAKE_BINARY_DIR}/KVT64.DLL;${CMAKE_BINARY_DIR}/KVT64UI.DLL;${KVT_SETUP_MANIFEST};${CMAKE_SOURCE_DIR}/installer/kvtsetup.h")
add_dependencies(kvtsetup KVT64 KVT64UI)
target_include_directories(kvtsetup PRIVATE ${CMAKE_SOURCE_DIR}/installer)
set_target_properties(kvtsetup PROPERTIES OUTPUT_NAME kvtsetup)
target_compile_options(kvtsetup PRIVATE $<$<COMPILE_LANGUAGE:CXX>:-municode>)
target_link_options(kvtsetup PRIVATE -municode -static -static-libgcc -static-libstdc++)
target_link_libraries(kvtsetup PRIVATE winspool advapi32 shell32 user32 kernel32)
