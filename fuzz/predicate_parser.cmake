# The rule language: parser, canonical text and evaluator.
pxkit_add_fuzzer(predicate_parser LIBS pxkit_rules)
