#!/usr/bin/env python3
"""A simulated machine with N accelerator functions, for benchmarks:

    generate.py N > many.json

Each function is one device entry with one instance. The ten supported models
take turns (physical and virtual functions alternate), the physical functions
cycle through the accepted ServicesNeeded values, and every third of them has a
Sriov key. The output depends on N alone.
"""
import json, sys

MODELS = [("5A10", "M31x"), ("6B20", "7xxx"), ("6B22", "701xx"), ("6B24", "702xx"), ("6B26", "720xx TLM-D")]
ACCEPTED = ["asym;dc", "sym;dc", "sym;asym", "asym;sym"]


def machine(count):
    devices = []
    for i in range(count):
        pf_id, name = MODELS[(i // 2) % len(MODELS)]
        virtual = i % 2 == 1
        device = {"vendor": "1F2E", "device": "%04X" % (int(pf_id, 16) + virtual), "subsystem": "00001F2E",
                  "revision": "20", "description": "Corvane Swiftlane %s%s" % (name, " virtual function" * virtual),
                  "instances": ["4&%08x&0&%04X" % (0x5eed0000 + i, i)]}
        if not virtual:
            device["servicesNeeded"] = ACCEPTED[(i // 2) % len(ACCEPTED)]
            if i % 3 == 0:
                device["sriov"] = {"EnableSriov": 1}
        devices.append(device)
    return {"description": "%d generated accelerator functions" % count, "windows": "win10", "devices": devices}


if __name__ == "__main__":
    if len(sys.argv) != 2 or not sys.argv[1].isdigit():
        sys.exit(__doc__)
    json.dump(machine(int(sys.argv[1])), sys.stdout, indent=1)
    sys.stdout.write("\n")
