# The project's everyday commands; `make` alone lists them. What needs packages installs those that
# are missing; with none missing that takes neither root nor network.
PRESET ?= debug

help:
	@echo "make demo          build, show two processes talk; KEEP=1 goes on until Ctrl-C, TLS=1 encrypts"
	@echo "make demo-bridge   build, show a family on two bridged brokers come back after the bridge was killed"
	@echo "make build         build everything; PRESET=debug|release|bench|asan|tsan|clang|notls"
	@echo "make test          build, run all tests; PRESET=debug|bench|asan|tsan|clang|notls"
	@echo "make test-browser  build, use the status page in a headless Chromium (100 MB to install)"
	@echo "make test-windows  run the Windows platform file under Wine; PREFIX=<POCO, Paho> all else too"
	@echo "make bench         measure beside other libraries; AREA=mqtt|pool|logging|http|tls, all without"
	@echo "make soak          load, faults and exits, as a table; SHORT=1 for a few minutes"
	@echo "make fuzz          fuzz what comes from outside, 10 minutes a target; SECONDS=... for less"
	@echo "make check         all checks, as CI runs them"
	@echo "make lint          static analysis; FILES=... for these alone"
	@echo "make format        format the C++ files"
	@echo "make package       .deb packages and a .tar.gz, to build/packages"
	@echo "make docs          the documents and the reference as a site, to build/site"
	@echo "make deps          install the Debian packages that the build, the tests and the demo need"
	@echo "make clean         remove the build folder"

demo:
	@scripts/install-deps base $(if $(TLS),tls)
	@# In a terminal Ctrl-C is to reach the demo and not make: a job of its own (-m), which takes a terminal.
	@job=; if (: </dev/tty) 2>/dev/null; then job=-m; fi; \
	    KEEP=$(KEEP) TLS=$(TLS) bash $$job -c 'scripts/demo; exit $$?'

demo-bridge:
	@scripts/install-deps
	@scripts/demo-bridge

test:
	@scripts/install-deps base tls
	@scripts/test $(PRESET)

test-browser:
	@scripts/test-browser

build:
	@scripts/install-deps
	@scripts/build $(PRESET)

test-windows:
	@scripts/test-windows $(PREFIX)

bench:
	@scripts/bench $(AREA)

soak:
	@scripts/install-deps base soak
	@scripts/soak $(if $(SHORT),--short)

fuzz:
	@scripts/install-deps base ci
	@scripts/fuzz $(SECONDS)

check:
	@.ci/run

lint:
	@scripts/install-deps base ci
	@scripts/lint $(FILES)

format:
	@scripts/format

package:
	@scripts/install-deps build
	@scripts/package

docs:
	@scripts/install-deps docs
	@scripts/docs

deps:
	@scripts/install-deps --say base tls

clean:
	rm -rf build

.PHONY: help demo demo-bridge test test-browser build test-windows bench soak fuzz check lint format package docs deps clean
