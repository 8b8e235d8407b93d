# In the Debian package the link to the platform's log is relative, as its rules want. Where
# `cmake --install` puts it, it is not: that folder may be moved.
set(link ${CPACK_TEMPORARY_DIRECTORY}/usr/libexec/ffu/liblog.so.0)
file(READ_SYMLINK ${link} target)
file(RELATIVE_PATH target /usr/libexec/ffu ${target})
file(CREATE_LINK ${target} ${link} SYMBOLIC)
