# The rule checker's "${...}" preprocessing.
pxkit_add_fuzzer(rule_preprocessor LIBS pxkit_rules)
# Coverage feedback from the checker's own code, not only from the fuzzer's file.
target_compile_options(pxkit_rules PRIVATE -fsanitize=fuzzer-no-link)
