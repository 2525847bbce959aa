# The JSON decoder (and the serializer on whatever it accepts).
pxkit_add_fuzzer(json_decoder LIBS pxkit_json)
# Coverage feedback from the codec itself, not only from the fuzzer's own file:
# without it libFuzzer cannot tell one parse path from another.
target_compile_options(pxkit_json PRIVATE -fsanitize=fuzzer-no-link)
