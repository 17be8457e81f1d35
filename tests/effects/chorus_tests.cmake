# The spectral chorus: ALLOCATIONS also exports the test's own symbols, which
# lets its fopen stand in for the bundle's.
lumbrel_add_test(effects_chorus_test SOURCES chorus_test.cpp BUNDLE ALLOCATIONS)
