# Envelope and noise removal, inside small effects driven through the engine.
lumbrel_add_test(lumbrel_envelope_tests
  SOURCES
    envelope_test.cpp
    noise_removal_test.cpp
  LIBS lumbrel_blocks lumbrel_alloc_counter)
