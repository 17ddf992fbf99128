# Runs on the staged packages, each in a folder named after its component. In fsetrestore itself it moves man pages, completion, catalogue and documents to their places in Debian, and
# makes links to the programs in /usr/sbin.
set(root ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/Unspecified)
set(prefix ${root}/usr/qtx/kest)
set(doc ${root}/usr/share/doc/fsetrestore)

file(MAKE_DIRECTORY ${root}/usr/share ${root}/usr/sbin ${doc})
file(GLOB shared ${prefix}/share/*)
foreach(folder IN LISTS shared)
  cmake_path(GET folder FILENAME name)
  file(RENAME ${folder} ${root}/usr/share/${name})
endforeach()
file(REMOVE_RECURSE ${prefix}/share)

file(GLOB programs ${prefix}/bin/*)
foreach(program IN LISTS programs)
  cmake_path(GET program FILENAME name)
  file(CREATE_LINK ../qtx/kest/bin/${name} ${root}/usr/sbin/${name} SYMBOLIC)
  if(NOT EXISTS ${root}/usr/share/man/man8/${name}.8)
    file(CREATE_LINK kest-commands.8.gz ${root}/usr/share/man/man8/${name}.8.gz SYMBOLIC)
  endif()
endforeach()

function(pack file)
  execute_process(COMMAND gzip -9n ${file} COMMAND_ERROR_IS_FATAL ANY)
  file(CHMOD ${file}.gz PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
endfunction()
file(GLOB pages ${root}/usr/share/man/man8/*.8)
foreach(page IN LISTS pages)
  pack(${page})
endforeach()
file(COPY_FILE ${FSETRESTORE_SOURCE}/CHANGELOG.md ${doc}/changelog)
pack(${doc}/changelog)
string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
file(WRITE ${doc}/changelog.Debian
  "fsetrestore (${CPACK_PACKAGE_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}) unstable; urgency=medium\n\n"
  "  * Built from the source; changelog.gz says what changed.\n\n -- ${CPACK_PACKAGE_CONTACT}  ${date}\n")
pack(${doc}/changelog.Debian)
file(READ ${FSETRESTORE_SOURCE}/LICENSE license)
file(WRITE ${doc}/copyright "fsetrestore\n\n${license}")
file(CHMOD ${doc}/copyright PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)

# Both packages have the same documents.
if(EXISTS ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/cephfs)
  set(docs ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/cephfs/usr/share/doc)
  file(MAKE_DIRECTORY ${docs})
  file(CREATE_LINK fsetrestore ${docs}/fsetrestore-cephfs SYMBOLIC)
endif()
