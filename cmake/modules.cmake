# SPDX-License-Identifier: Apache-2.0
# kestrel_module(NAME USES MODULE... SOURCES FILE...): one module of the library, the folder that the
# calling CMakeLists.txt lies in. Its sources may include headers of their own folder, the public
# headers, and the folders of the modules under USES; scripts/layers checks that.
function(kestrel_module name)
    cmake_parse_arguments(PARSE_ARGV 1 module "" "" "USES;SOURCES")
    add_library(kestrel_${name} OBJECT ${module_SOURCES})
    target_include_directories(kestrel_${name} PUBLIC ${PROJECT_SOURCE_DIR}/include
                               PRIVATE ${PROJECT_SOURCE_DIR})
    target_link_libraries(kestrel_${name} PRIVATE kestrel_warnings)
    target_sources(kestrel_objects INTERFACE $<TARGET_OBJECTS:kestrel_${name}>)
endfunction()

# All modules: what links it takes their object files.
add_library(kestrel_objects INTERFACE)
target_include_directories(kestrel_objects INTERFACE ${PROJECT_SOURCE_DIR}/include)
