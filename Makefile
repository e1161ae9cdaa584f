# bitmapfilter: `make demo` and `make test` are the contract; both work on a
# fresh Debian machine.
BUILD ?= build
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=

# Debian packages the build needs.
PACKAGES := g++ cmake make pkg-config libopenimageio-dev openimageio-tools libtbb-dev libgtest-dev \
            libgmock-dev libbenchmark-dev nlohmann-json3-dev fonts-dejavu-core \
            libcpp-httplib-dev chromium nodejs
SUDO := $(shell [ "$$(id -u)" = 0 ] || echo sudo)

.PHONY: all deps build test demo bench sanitize tsan format clean

all: build

deps:
	@missing=""; for p in $(PACKAGES); do \
	  dpkg-query -W -f='$${Status}' $$p 2>/dev/null | grep -q "ok installed" || missing="$$missing $$p"; \
	done; \
	if [ -n "$$missing" ]; then \
	  echo "installing:$$missing"; \
	  $(SUDO) apt-get update -qq && \
	  DEBIAN_FRONTEND=noninteractive $(SUDO) apt-get install -y -qq --no-install-recommends $$missing; \
	fi
	@# npm comes with some builds of nodejs and conflicts with Debian's npm there.
	@command -v npm >/dev/null 2>&1 || { $(SUDO) apt-get update -qq && \
	  DEBIAN_FRONTEND=noninteractive $(SUDO) apt-get install -y -qq --no-install-recommends npm; }
	@# The browser tests' packages, as the lockfile pins them; never a browser download.
	@cd tests/web && { [ node_modules/.package-lock.json -nt package-lock.json ] || \
	  PLAYWRIGHT_SKIP_BROWSER_DOWNLOAD=1 npm ci --no-audit --no-fund; }

# Configure whenever the generated build is missing, not only the cache: a
# configure that stopped half way (packages missing, Ctrl-C) leaves a
# CMakeCache.txt and no Makefile. A failed configure removes its cache, so the
# next one starts afresh.
$(BUILD)/Makefile: | deps
	cmake -S . -B $(BUILD) $(CMAKE_FLAGS) || { rm -f $(BUILD)/CMakeCache.txt; exit 1; }

build: deps $(BUILD)/Makefile
	cmake --build $(BUILD) -j $(JOBS)

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

# Every available filter on the sample with settings that show what it does
# (the table is in examples/demo.sh), then one contact sheet of the sample and
# all the results; each command says what it wrote.
demo: build
	sh examples/demo.sh $(BUILD)/bin/bitmapfilter out

bench: build
	$(BUILD)/bench/bf_bench

# The test suite under AddressSanitizer and UndefinedBehaviorSanitizer, and
# under ThreadSanitizer.
sanitize: deps
	$(MAKE) test BUILD=build-asan CMAKE_FLAGS="-DBF_SANITIZE=address,undefined -DBF_BENCH=OFF"
tsan: deps
	TSAN_OPTIONS="suppressions=$(CURDIR)/tests/tsan.supp halt_on_error=1" \
	  $(MAKE) test BUILD=build-tsan CMAKE_FLAGS="-DBF_SANITIZE=thread -DBF_BENCH=OFF"

format:
	git ls-files '*.cpp' '*.hpp' '*.h' | xargs clang-format -i

clean:
	rm -rf build build-asan build-tsan out
