# The JSON decoder (and the serializer on whatever it accepts).
pxkit_add_fuzzer(json_decoder LIBS pxkit_json)
