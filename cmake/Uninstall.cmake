# Removes what the installations from this build folder have listed, and the folders that are empty
# then. Says so if there was none.
file(GLOB manifests install_manifest*.txt)
if(NOT manifests)
    message(FATAL_ERROR "Nothing was installed from this build folder")
endif()

foreach(manifest ${manifests})
    file(STRINGS ${manifest} paths)
    foreach(path ${paths})
        file(REMOVE "$ENV{DESTDIR}${path}")
        cmake_path(GET path PARENT_PATH folder)
        list(APPEND folders "$ENV{DESTDIR}${folder}")
    endforeach()
endforeach()

while(folders) # from the deepest up, as long as they are this project's own
    list(REMOVE_DUPLICATES folders)
    list(SORT folders ORDER DESCENDING)
    list(POP_FRONT folders folder)
    file(GLOB content "${folder}/*")
    if(folder MATCHES "mempager" AND NOT content AND IS_DIRECTORY "${folder}")
        file(REMOVE_RECURSE "${folder}")
        cmake_path(GET folder PARENT_PATH parent)
        list(APPEND folders "${parent}")
    endif()
endwhile()
file(REMOVE ${manifests})
