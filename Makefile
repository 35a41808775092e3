# The project's everyday commands; `make` alone lists them.
PRESET ?= debug

help:
	@echo "make demo          install what is missing, build, show two processes talk; KEEP=1 goes on until Ctrl-C"
	@echo "make test          install what is missing, build, run all tests; PRESET=debug|release|asan|tsan|notls"
	@echo "make test-browser  the same for the status page, in a headless Chromium (100 MB to install)"
	@echo "make bench         install what is missing, measure beside other libraries; AREA=mqtt|pool, all without"
	@echo "make build         build everything; PRESET as above"
	@echo "make test-windows  install what is missing, run the Windows platform file under Wine"
	@echo "make format        format the C++ files"
	@echo "make clean         remove the build folder"

demo:
	@scripts/install-deps
	@KEEP=$(KEEP) scripts/demo

test:
	@scripts/install-deps
	@scripts/test $(PRESET)

test-browser:
	@scripts/test-browser

build:
	@scripts/install-deps
	@scripts/build $(PRESET)

test-windows:
	@scripts/test-windows

bench:
	@scripts/bench $(AREA)

format:
	@scripts/format

clean:
	rm -rf build

.PHONY: help demo test test-browser bench build test-windows format clean
