#!/usr/bin/env python3
"""Writes the hash-data file of a tools image, independently of guestprep.

make_hashdata.py IMAGE --key KEY --cert CERT [--chain PEM] [--embed]
                 [--block-size N] [--out FILE] [--sig-out FILE]

The layout (little-endian): the 32-byte magic "A Brimle External Hashdata
File" and a zero, metadataLength at 32, blockSize at 44, hashSize at 48,
hashFileBlockSize at 52, firstHashOffset at 64, hashCount at 72,
signatureOffset at 80, signatureSize at 88, the algorithm "SHA-256" at 96;
zeros up to metadataLength (512), then one SHA-256 hash per image block.
The detached PEM PKCS#7 signature, made by the openssl program, follows the
hashes (--embed, which also sets hashFileBlockSize 4096) or goes to its own
file (IMAGE.sig).
"""
import argparse
import hashlib
import os
import struct
import subprocess
import sys
import tempfile

MAGIC = b"A Brimle External Hashdata File\0"
METADATA_LENGTH = 512
HASH_SIZE = 32


def header(block_size, hash_file_block_size, hash_count, sig_offset, sig_size):
    fields = struct.pack(
        "<32sI8sIII8sQQQQ8s",
        MAGIC,
        METADATA_LENGTH,
        b"\0" * 8,
        block_size,
        HASH_SIZE,
        hash_file_block_size,
        b"\0" * 8,
        METADATA_LENGTH,
        hash_count,
        sig_offset,
        sig_size,
        b"SHA-256\0",
    )
    assert len(fields) == 104
    return fields + b"\0" * (METADATA_LENGTH - len(fields))


def block_hashes(path, block_size):
    hashes = []
    with open(path, "rb") as image:
        while True:
            block = image.read(block_size)
            if not block:
                break
            hashes.append(hashlib.sha256(block).digest())
    return b"".join(hashes)


def sign(data, args):
    with tempfile.TemporaryDirectory() as tmp:
        data_path = os.path.join(tmp, "data")
        sig_path = os.path.join(tmp, "sig")
        with open(data_path, "wb") as f:
            f.write(data)
        argv = ["openssl", "smime", "-sign", "-binary", "-noattr", "-outform", "PEM",
                "-in", data_path, "-out", sig_path, "-signer", args.cert, "-inkey", args.key]
        if args.chain:
            argv += ["-certfile", args.chain]
        subprocess.run(argv, check=True, stdout=subprocess.DEVNULL)
        with open(sig_path, "rb") as f:
            return f.read()


def write(path, data):
    tmp = path + ".tmp"
    with open(tmp, "wb") as f:
        f.write(data)
    os.replace(tmp, path)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("image")
    parser.add_argument("--key", required=True)
    parser.add_argument("--cert", required=True)
    parser.add_argument("--chain")
    parser.add_argument("--embed", action="store_true")
    parser.add_argument("--block-size", type=int, default=4096)
    parser.add_argument("--out")
    parser.add_argument("--sig-out")
    args = parser.parse_args()

    hashes = block_hashes(args.image, args.block_size)
    count = len(hashes) // HASH_SIZE
    if count == 0:
        sys.exit("make_hashdata: empty image")
    out = args.out or args.image + ".sha"
    if not args.embed:
        body = header(args.block_size, 0, count, 0, 0) + hashes
        write(args.sig_out or args.image + ".sig", sign(body, args))
        write(out, body)
        return
    # The signature covers the header that gives its size: sign with a
    # guess, then with the size that guess produced, padding a shorter
    # signature with line feeds.
    offset = METADATA_LENGTH + len(hashes)
    announced = 0
    for _ in range(8):
        body = header(args.block_size, 4096, count, offset, announced) + hashes
        signature = sign(body, args)
        if announced and len(signature) <= announced:
            write(out, body + signature + b"\n" * (announced - len(signature)))
            return
        announced = len(signature)
    sys.exit("make_hashdata: the signature's size does not settle")


if __name__ == "__main__":
    main()
