# Every external library comes from Debian packages (scripts/setup.sh installs them).
find_package(Threads REQUIRED)

