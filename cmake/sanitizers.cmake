# Everything under Address-, Leak- and UndefinedBehaviorSanitizer, with what libFuzzer needs; by
# clang. A variable without an initial value holds a pattern, so that it is never zero by chance. The
# runtime is a library: built into a program it would stand ahead of the simulated phone.
execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-runtime-dir
    OUTPUT_VARIABLE RUNTIME_FOLDER OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
add_compile_options(
    -fno-omit-frame-pointer -fno-sanitize-recover=all
    -fsanitize=fuzzer-no-link,address,undefined
    -ftrivial-auto-var-init=pattern
    # by -Xclang, which does not mind where nothing is sanitized
    "SHELL:-Xclang -fsanitize-coverage-ignorelist=${CMAKE_CURRENT_LIST_DIR}/coverage-ignore.txt")
add_link_options(-fsanitize=address,undefined -shared-libasan -Wl,-rpath,${RUNTIME_FOLDER})
