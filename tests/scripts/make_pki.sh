#!/usr/bin/env bash
# make_pki.sh OUTDIR: a small certificate hierarchy for signature tests, made
# with the openssl command-line tool. EC P-256 keys, so it takes a second.
#
# OUTDIR/NAME.key and NAME.pem for every certificate, NAME.chain (the
# intermediates a signer ships in its signature, possibly empty) for every
# signer, and these revocation lists:
#   maker-root, partner-root        self-signed roots (the two trusted bundles)
#   maker-ca -> maker-leaf          the usual maker signer
#            -> maker-expired       valid 2020-01-01 to 2021-01-01
#            -> maker-revoked       listed in maker-ca.crl
#   maker-root -> long1 .. long5 -> long-leaf
#                                   six certificates above the signer
#   partner-ca -> partner-leaf      a partner signer
#   other-root -> other-ca -> other-leaf
#                                   a hierarchy nobody trusts
#   impostor                        self-signed, with maker-leaf's name
#   maker-ca.crl                    by maker-ca, revoking maker-revoked
#   maker-root.crl                  by maker-root, revoking nothing
#   maker-all.crl                   both of the above in one file
#   partner-ca.crl                  by partner-ca, revoking nothing
#   wrong-key.crl                   names maker-ca as issuer and revokes
#                                   nothing, but is signed by another key
set -euo pipefail

out=${1:?usage: make_pki.sh OUTDIR}
mkdir -p "$out"
cd "$out"

cat >pki.cnf <<'EOF'
[req]
distinguished_name = dn
prompt = no
[dn]
[v3_ca]
basicConstraints = critical,CA:TRUE
keyUsage = critical,keyCertSign,cRLSign
subjectKeyIdentifier = hash
[v3_leaf]
basicConstraints = CA:FALSE
keyUsage = critical,digitalSignature
[ca]
default_ca = this_ca
[this_ca]
dir = .
database = $dir/index.txt
new_certs_dir = $dir/issued
serial = $dir/serial
crlnumber = $dir/crlnumber
default_md = sha256
default_crl_days = 3650
policy = any_name
unique_subject = no
copy_extensions = none
x509_extensions = v3_leaf
[any_name]
commonName = supplied
EOF

key() {
  openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out "$1.key" 2>/dev/null
}

# root NAME CN
root() {
  key "$1"
  openssl req -config pki.cnf -new -x509 -key "$1.key" -subj "/CN=$2" -days 3650 -sha256 \
    -extensions v3_ca -set_serial 1 -out "$1.pem"
}

# issue NAME ISSUER CN SERIAL EXTENSIONS: a certificate for a new key
issue() {
  key "$1"
  openssl req -config pki.cnf -new -key "$1.key" -subj "/CN=$3" -out "$1.csr"
  openssl x509 -req -in "$1.csr" -CA "$2.pem" -CAkey "$2.key" -set_serial "$4" -days 3650 \
    -sha256 -extfile pki.cnf -extensions "$5" -out "$1.pem" 2>/dev/null
  rm -f "$1.csr"
}

# ca_dir NAME CERT: an "openssl ca" working directory that signs as CERT
ca_dir() {
  mkdir -p "ca-$1/issued"
  : >"ca-$1/index.txt"
  echo 2001 >"ca-$1/serial"
  echo 01 >"ca-$1/crlnumber"
  cp pki.cnf "ca-$1/"
  cp "$2.pem" "ca-$1/ca.pem"
  cp "$2.key" "ca-$1/ca.key"
}

# ca NAME ARGS...: runs "openssl ca" in the working directory NAME
ca() {
  local name=$1
  shift
  (cd "ca-$name" && openssl ca -config pki.cnf -batch -cert ca.pem -keyfile ca.key "$@") 2>/dev/null
}

root maker-root "guestprep test maker root"
issue maker-ca maker-root "guestprep test maker CA" 0x1001 v3_ca
issue maker-leaf maker-ca "guestprep test maker signer" 0x1002 v3_leaf
issue maker-revoked maker-ca "guestprep test maker revoked signer" 0x1003 v3_leaf

ca_dir maker-ca maker-ca
key maker-expired
openssl req -config pki.cnf -new -key maker-expired.key -subj "/CN=guestprep test maker expired signer" \
  -out maker-expired.csr
ca maker-ca -in ../maker-expired.csr -out ../maker-expired.pem -notext \
  -startdate 20200101000000Z -enddate 20210101000000Z
rm -f maker-expired.csr
ca maker-ca -revoke ../maker-revoked.pem -crl_reason keyCompromise
ca maker-ca -gencrl -out ../maker-ca.crl

ca_dir maker-root maker-root
ca maker-root -gencrl -out ../maker-root.crl
cat maker-root.crl maker-ca.crl >maker-all.crl

prev=maker-root
for i in 1 2 3 4 5; do
  issue "long$i" "$prev" "guestprep test long chain CA $i" "0x30$i" v3_ca
  prev=long$i
done
issue long-leaf long5 "guestprep test long chain signer" 0x3010 v3_leaf

root partner-root "guestprep test partner root"
issue partner-ca partner-root "guestprep test partner CA" 0x1001 v3_ca
issue partner-leaf partner-ca "guestprep test partner signer" 0x1002 v3_leaf
ca_dir partner-ca partner-ca
ca partner-ca -gencrl -out ../partner-ca.crl

root other-root "guestprep test other root"
issue other-ca other-root "guestprep test other CA" 0x1001 v3_ca
issue other-leaf other-ca "guestprep test other signer" 0x1002 v3_leaf

# Same name as maker-leaf, its own key, signed by itself.
key impostor
openssl req -config pki.cnf -new -x509 -key impostor.key -subj "/CN=guestprep test maker signer" \
  -days 3650 -sha256 -extensions v3_leaf -set_serial 0x1002 -out impostor.pem

# A CA with maker-ca's name but another key issues the wrong-key list.
root wrong-key-ca "guestprep test maker CA"
ca_dir wrong-key wrong-key-ca
ca wrong-key -gencrl -out ../wrong-key.crl

# What each signer ships beside its own certificate.
: >impostor.chain
cp maker-ca.pem maker-leaf.chain
cp maker-ca.pem maker-expired.chain
cp maker-ca.pem maker-revoked.chain
cp partner-ca.pem partner-leaf.chain
cp other-ca.pem other-leaf.chain
cat long5.pem long4.pem long3.pem long2.pem long1.pem >long-leaf.chain

rm -rf ca-*
echo "make_pki: done in $out"
