# SPDX-License-Identifier: Apache-2.0
# kestrel_module(NAME [COMPANION] USES MODULE... SOURCES FILE...): one module of the library or of the
# companion library, the folder that the calling CMakeLists.txt lies in. Its sources may include headers
# of their own folder, the public headers, and the folders of the modules under USES; scripts/layers
# checks that.
function(kestrel_module name)
    cmake_parse_arguments(PARSE_ARGV 1 module "COMPANION" "" "USES;SOURCES")
    add_library(kestrel_${name} OBJECT ${module_SOURCES})
    target_include_directories(kestrel_${name} PUBLIC ${PROJECT_SOURCE_DIR}/include
                               PRIVATE ${PROJECT_SOURCE_DIR})
    target_link_libraries(kestrel_${name} PRIVATE kestrel_warnings)
    set(library kestrel_objects)
    if(module_COMPANION)
        set(library kestrel_companion_objects)
    endif()
    target_sources(${library} INTERFACE $<TARGET_OBJECTS:kestrel_${name}>)
endfunction()

# All modules of a library: what links it takes their object files.
foreach(library kestrel_objects kestrel_companion_objects)
    add_library(${library} INTERFACE)
    target_include_directories(${library} INTERFACE ${PROJECT_SOURCE_DIR}/include)
endforeach()
