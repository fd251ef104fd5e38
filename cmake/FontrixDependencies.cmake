# Every external library comes from Debian packages (scripts/setup.sh installs them).
find_package(Threads REQUIRED)

# OpenBLAS: the engine calls the Fortran-convention sgemm_ it exports.
find_library(OPENBLAS_LIBRARY NAMES openblas REQUIRED)
add_library(fontrix::blas UNKNOWN IMPORTED)
set_target_properties(fontrix::blas PROPERTIES IMPORTED_LOCATION ${OPENBLAS_LIBRARY})
