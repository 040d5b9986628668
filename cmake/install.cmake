# What `cmake --install` puts in place: the program (stripped, except in
# Debug and sanitizer builds), its manual page, the documentation, and the
# web-server snippets that scripts/package.sh turns into the .deb's files
# under /etc.
include(GNUInstallDirs)

if(NOT CMAKE_BUILD_TYPE STREQUAL "Debug" AND NOT CVML_SANITIZE)
  # The generated install script strips a target when this is set, as
  # `cmake --install --strip` does.
  install(CODE "if(NOT DEFINED CMAKE_INSTALL_DO_STRIP)\n  set(CMAKE_INSTALL_DO_STRIP 1)\nendif()")
endif()
install(TARGETS cvml RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${CMAKE_SOURCE_DIR}/docs/cvml.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${CMAKE_SOURCE_DIR}/README.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY ${CMAKE_SOURCE_DIR}/docs/ DESTINATION ${CMAKE_INSTALL_DOCDIR}
        FILES_MATCHING PATTERN "*.md")
install(FILES ${CMAKE_SOURCE_DIR}/packaging/lighttpd/10-cvml.conf ${CMAKE_SOURCE_DIR}/packaging/lighttpd/10-cvml-fastcgi.conf
        DESTINATION ${CMAKE_INSTALL_DATADIR}/cvml/lighttpd)
install(FILES ${CMAKE_SOURCE_DIR}/packaging/apache2/cvml.conf ${CMAKE_SOURCE_DIR}/packaging/apache2/cvml-fastcgi.conf
        DESTINATION ${CMAKE_INSTALL_DATADIR}/cvml/apache2)
install(FILES ${CMAKE_SOURCE_DIR}/packaging/nginx/cvml.conf ${CMAKE_SOURCE_DIR}/packaging/nginx/cvml-fastcgi.conf
        DESTINATION ${CMAKE_INSTALL_DATADIR}/cvml/nginx)
# The FastCGI server's unit is an example to copy: the package does not
# start a server of its own.
install(FILES ${CMAKE_SOURCE_DIR}/packaging/systemd/cvml.service DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)
