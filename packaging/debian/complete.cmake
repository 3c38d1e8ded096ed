# Completes the installed tree for a Debian package: what Debian wants below /etc and in the documents' folder. CPack
# runs it on the tree before it packs it.
get_filename_component(SOURCE ${CMAKE_CURRENT_LIST_DIR}/.. ABSOLUTE)
set(ROOT ${CPACK_TEMPORARY_INSTALL_DIRECTORY})
set(DOCUMENTS ${ROOT}/usr/share/doc/logcollector)

# lnav reads the formats of all users there.
file(GLOB FORMATS ${ROOT}/usr/share/logcollector/lnav/*.json)
file(COPY ${FORMATS} DESTINATION ${ROOT}/etc/lnav/formats/logcollector)

file(COPY ${SOURCE}/debian/copyright DESTINATION ${DOCUMENTS})
file(COPY_FILE ${SOURCE}/debian/changelog ${DOCUMENTS}/changelog.Debian)
file(COPY_FILE ${SOURCE}/debian/lintian-overrides ${ROOT}/overrides)
file(MAKE_DIRECTORY ${ROOT}/usr/share/lintian/overrides)
file(RENAME ${ROOT}/overrides ${ROOT}/usr/share/lintian/overrides/logcollector)
file(GLOB MANUALS ${ROOT}/usr/share/man/man1/*.1)
execute_process(COMMAND chmod -R u=rwX,go=rX ${ROOT} COMMAND_ERROR_IS_FATAL ANY)   # whatever the umask was
execute_process(COMMAND gzip -9n ${MANUALS} ${DOCUMENTS}/changelog.Debian COMMAND_ERROR_IS_FATAL ANY)
