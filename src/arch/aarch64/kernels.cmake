# Special instructions are compiled into their kernel's file alone, which runs after a probe.
