#!/usr/bin/env python3
"""Writes pki_tool.json: the example program run as a host would run it, in groups that each run
in one fresh scratch folder, with OpenSSL's command line making what the program reads and
judging what it writes. Run it from this folder.
"""
import json

NOTE = ("the example program run as a host would run it, one group of runs in one fresh scratch folder (the "
        "working directory): command ($tool, $src the checkout, $data tests/data, $root ISRG Root X1 of "
        "ca-certificates, $cerm a certificate-manager root holding it), standard output and error of its last "
        "command together, exit status when given, and the output: whole (parts, @ names a fixture), how it starts "
        "or ends, text it has, or its count of lines")
SITE = "$tool verify $src/examples/site-chain.pem --ca $root --time 2023-04-01 --host "
CN = '"CN=certauth.cryptomix.com"'

TOOL = [
    {"run": "$tool digest sha256 $src/examples/abc.txt 2>/dev/null", "status": 0, "out": ["ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad  $src/examples/abc.txt\n"], "note": "FIPS 180-2 appendix B.1: SHA-256(\"abc\")"},
    {"run": "printf abc | $tool digest md5 -", "status": 0, "out": ["900150983cd24fb0d6963f7d28e17f72  -\n"], "note": "RFC 1321 appendix A.5: MD5(\"abc\")"},
    {"run": "$tool digest sha256 /nonexistent/file 2>/dev/null", "status": 1},
    {"run": "$tool digest sha3 $src/examples/abc.txt 2>/dev/null", "status": 2},
    {"run": "$tool 2>/dev/null", "status": 2},
    {"run": "$tool dump $data/certs/leaf.pem", "status": 0, "out": ["LABEL: CERTIFICATE\n", "unknown ext id=1.2.3.4.5, critical: 0\n", "@certs/leaf.dump"]},
    {"run": "$tool dump $data/certs/leaf.der", "status": 0, "out": ["unknown ext id=1.2.3.4.5, critical: 0\n", "@certs/leaf.dump"]},
    {"run": "$tool dump $data/certs/chain.pem", "status": 0, "out": ["LABEL: CERTIFICATE\n", "unknown ext id=1.2.3.4.5, critical: 0\n", "LABEL: PRIVATE KEY\nLABEL: CERTIFICATE\n", "@certs/leaf.dump", "@certs/ca.dump"]},
    {"run": "$tool dump $data/certs/crl.der", "status": 0, "out": ["@certs/crl.dump"]},
    {"run": "$tool dump $data/certs/req.pem", "status": 0, "out": ["unknown attribute 2a:86:48:86:f7:0d:01:09:02\n", "@certs/req.dump"]},
    {"run": "$tool dump $data/keys/rsa2048.legacy-aes256.pem --password tessel-fixture", "status": 0, "starts": "[RSA-PRIVATE]\nmodulus: ", "note": "the password of keys/PASSWORD"},
    {"run": "$tool dump $data/keys/rsa2048.legacy-aes256.pem 2>/dev/null", "status": 1},
    {"run": "$tool dump $data/keys/rsa1024.pub.pem", "status": 0, "starts": "[RSA-PUBLIC]\n"},
    {"run": "$tool dump /nonexistent 2>/dev/null", "status": 1},
    {"run": "$tool dump 2>/dev/null", "status": 2},
    {"run": "$tool verify $src/examples/site-chain.pem --ca $root --host certauth.cryptomix.com --time 2023-04-01", "status": 0, "ends": "\ncode 0: chain valid\n", "needsRoot": True},
    {"run": "$tool verify $src/examples/broken-chain.pem --ca $root --host certauth.cryptomix.com --time 2023-04-01", "status": 1, "needsRoot": True, "ends": "\ncode 9: cert signature is invalid for: \"CN=certauth.cryptomix.com\"\n"},
    {"run": "$tool verify $src/examples/site-chain.pem --ca $root --time 1686017244", "status": 1, "needsRoot": True, "ends": "\ncode 5: cert not valid (after: Tue Jun  6 02:07:23 2023 < now: Tue Jun  6 02:07:24 2023) - \"CN=certauth.cryptomix.com\"\n"},
    {"run": "$tool verify $src/examples/site-chain.pem --time 2023-04-01", "status": 1, "ends": "\ncode 6: no certificate of the chain is held by the store\n"},
    {"run": "$tool verify $src/examples/site-chain.pem --time yesterday 2>/dev/null", "status": 2},
    {"run": "$tool verify $src/examples/site-chain.pem --cerm $cerm --host certauth.cryptomix.com --time 2023-04-01 --mask 4", "status": 0, "needsRoot": True, "note": "the anchor from a certificate-manager store (entry 7, for use 4) instead of a file"},
    {"run": "$tool verify $src/examples/site-chain.pem --cerm $cerm --host certauth.cryptomix.com --time 2023-04-01 --mask 2", "status": 1, "needsRoot": True, "ends": "\ncode 6: no certificate of the chain is held by the store\n"},
    {"run": "$tool verify 2>/dev/null", "status": 2},
]
TOOL += [
    {"run": SITE + "CertAuth.CryptoMix.com", "status": 0, "needsRoot": True, "ends": "\ncode 0: chain valid\n",
     "note": "host names match whatever their case"},
    {"run": SITE + "www.cryptomix.com", "status": 1, "needsRoot": True,
     "ends": "\ncode 2: name verification failed for: " + CN + "\n"},
    {"run": "$tool verify $src/examples/site-chain.pem --ca $root --time 2026-01-01", "status": 1, "needsRoot": True,
     "ends": "\ncode 5: cert not valid (after: Tue Jun  6 02:07:23 2023 < now: Thu Jan  1 00:00:00 2026) - " + CN + "\n"},
    {"run": "openssl x509 -in $src/examples/site-chain.pem -out leaf.pem && $tool verify leaf.pem --ca $root "
            "--time 2023-04-01", "status": 1, "needsRoot": True,
     "ends": "\ncode 6: no certificate of the chain is held by the store\n",
     "note": "the validator sees only what the peer sent: without the intermediate no anchor is reached"},
]


def r(run, status=None, **kw):
    x = {"run": run}
    if status is not None:
        x["status"] = status
    x.update(kw)
    return x


def ok(run, **kw):
    return r(run, 0, **kw)


def usage(args):
    return r(args, 2, lines=1)


T = "$tool "


def selfsigned(name, key=None, cn=None):
    return ok(f"cp $data/keys/{key or name}.pkcs8.pem {name}.key && openssl req -x509 -new -key {name}.key "
              f"-subj /CN={cn or name} -days 2 -out {name}.pem")


# cms: signing, verifying, enveloping and opening, each way.
both = "--key rsa2048.key --cert rsa2048.pem --key ec256.key --cert ec256.pem "
cms = [
    selfsigned("rsa2048"), selfsigned("ec256"),
    ok("printf 'the content\\n' > data.txt && printf 'the content!\\n' > other.txt && cat rsa2048.pem ec256.pem > both.pem"),
]
for i, (t, o) in enumerate([
        (both + "--out m1.der", "-inform DER -in m1.der"),
        ("--key rsa2048.key --cert rsa2048.pem --detached --pss --digest sha384 --pem --out m2.pem",
         "-inform PEM -in m2.pem -content data.txt"),
        (both + "--key-id --no-attributes --out m3.der", "-inform DER -in m3.der")]):
    cms += [ok(T + "cms sign --in data.txt " + t),
            ok(f"openssl cms -verify -binary -CAfile both.pem -out v{i}.txt {o} && cmp v{i}.txt data.txt")]
cms += [
    ok("openssl cms -sign -binary -outform DER -in data.txt -signer rsa2048.pem -inkey rsa2048.key -signer ec256.pem "
       "-inkey ec256.key -out d.der"),
    ok(T + "cms verify --in d.der --content data.txt --CAfile both.pem", ends="\nsigner 0: CN=ec256\nsigner 1: CN=rsa2048\n",
       note="OpenSSL writes the signers in DER order, the P-256 one first here"),
    r(T + "cms verify --in d.der --content other.txt", 1,
      has=["tessel: verification failed: signer 0: message digest differs from the content's digest\n"]),
    r(T + "cms verify --in d.der --content data.txt --CAfile ec256.pem", 1,
      has=["signer 1: signer certificate path: no certificate of the chain is held by the store"]),
    r(T + "cms verify --in data.txt", 1, note="not a signed message"),
    ok(T + "cms --help"), ok(T + "cms sign --help"), r(T + "cms frobnicate", 2),
    r(T + "cms sign --in data.txt --key rsa2048.key", 2, note="no --cert for the key"),
    r(T + "cms sign --in data.txt --key ec256.key --cert ec256.pem --pss", 2), r(T + "cms verify", 2),
]
for i, (t, o) in enumerate([
        ("--recip rsa2048.pem --recip ec256.pem", "-inkey ec256.key -recip ec256.pem"),
        ("--recip rsa2048.pem --oaep --cipher aes-128-gcm", "-inkey rsa2048.key -recip rsa2048.pem"),
        ("--password pw --cipher aes-128-cbc", "-pwri_password pw")]):
    cms += [ok(T + f"cms encrypt --in data.txt --out e{i}.der " + t),
            ok(f"openssl cms -decrypt -binary -inform DER -in e{i}.der -out o{i}.txt {o} && cmp o{i}.txt data.txt")]
cms += [
    ok("openssl cms -encrypt -binary -outform DER -aes-256-gcm -in data.txt -out e.der ec256.pem"),
    ok(T + "cms decrypt --in e.der --key ec256.key --cert ec256.pem --out out1.txt && cmp out1.txt data.txt"),
    ok("openssl cms -encrypt -binary -outform PEM -aes128 -pwri_password pw -in data.txt -out p.pem"),
    ok(T + "cms decrypt --in p.pem --password pw --out out2.txt && cmp out2.txt data.txt"),
    r(T + "cms decrypt --in p.pem --password wrong --out out3.txt", 1, has=["decryption failed"]),
    r("test -e out3.txt", 1, note="a wrong password writes nothing"),
    r(T + "cms decrypt --in p.pem --key ec256.key", 2), r(T + "cms encrypt --in data.txt --cipher des", 2),
    r(T + "cms encrypt --in data.txt", 2),
]

# cms_signed: what OpenSSL signs with each key and padding, with attributes, without, detached and
# with a second signer, verifies; trusted only through a store holding the signers' certificates.
# And what tessel signs each way, attached or detached, naming the signer either way, OpenSSL verifies.
signed = [selfsigned(k, cn="signer-" + k) for k in ["rsa2048", "ec256", "ec384"]]
signed += [selfsigned("second", "ec256"), selfsigned("stranger", "ec521"),
           ok("printf 'tessel signed content\\r\\nwith a second line\\n' > data.txt && "
              "cat rsa2048.pem ec256.pem ec384.pem second.pem > all.pem")]
n = 0
for key, how in [("rsa2048", "-md sha256"), ("rsa2048", "-md sha384 -keyopt rsa_padding_mode:pss"),
                 ("ec256", "-md sha256"), ("ec384", "-md sha384")]:
    for variant, detached, signers in [("-nodetach", False, 1), ("-nodetach -noattr", False, 1), ("", True, 1),
                                       ("-nodetach -signer second.pem -inkey second.key", False, 2)]:
        n += 1
        msg = f"--in s{n}.der" + (" --content data.txt" if detached else "")
        said = {"ends": f"signer 0: CN=signer-{key}\n"} if signers == 1 else {"has": ["signer 1: ", "CN=second\n"]}
        signed += [
            ok(f"openssl cms -sign -binary -outform DER -in data.txt -signer {key}.pem -inkey {key}.key {how} {variant} "
               f"-out s{n}.der"),
            ok(T + "cms verify " + msg, **said),
            r(T + "cms verify " + msg + " --CAfile stranger.pem", 1, has=["no certificate of the chain is held"]),
            ok(T + "cms verify " + msg + " --CAfile all.pem", **said)]
        if detached:
            signed.append(r(T + f"cms verify --in s{n}.der", 1, note="detached: no content, no verdict"))

for key, how in [("rsa2048", "--digest sha256"), ("rsa2048", "--pss --digest sha384"), ("ec256", "--digest sha256"),
                 ("ec384", "--digest sha384")]:
    for detached in ["", "--detached "]:
        for by in ["", "--key-id "]:
            n += 1
            content = " -content data.txt" if detached else ""
            signed += [
                ok(T + f"cms sign --in data.txt --key {key}.key --cert {key}.pem {how} {detached}{by}--out s{n}.der"),
                ok(f"openssl cms -verify -binary -inform DER -in s{n}.der -CAfile {key}.pem{content} -out v{n}.txt && "
                   f"cmp v{n}.txt data.txt")]

# cms_enveloped: what tessel envelopes OpenSSL opens, and the other way, for every recipient kind.
PW = "'correct horse'"
enveloped = [selfsigned(k) for k in ["rsa2048", "ec256", "ec384", "ec521"]]
enveloped.append(ok("printf 'tessel enveloped content\\r\\nspanning more than one AES block\\n' > plain.txt"))


def theirs(who):
    return f"-pwri_password {PW}" if who == "password" else f"-inkey {who}.key -recip {who}.pem"


def ours(who):
    return f"--password {PW}" if who == "password" else f"--key {who}.key --cert {who}.pem"


for i, (who, options) in enumerate([
        ("rsa2048", "--cipher aes-128-cbc"), ("rsa2048", "--oaep --cipher aes-256-cbc"),
        ("rsa2048", "--cipher aes-128-gcm"), ("rsa2048", "--oaep --cipher aes-256-gcm"),
        ("ec256", "--cipher aes-128-cbc"), ("ec256", "--cipher aes-256-gcm"), ("ec384", "--cipher aes-256-cbc"),
        ("ec521", "--cipher aes-128-gcm"), ("password", "--cipher aes-128-cbc"), ("password", "--cipher aes-256-cbc"),
        ("password", "--cipher aes-256-gcm")]):
    to = f"--password {PW}" if who == "password" else f"--recip {who}.pem"
    enveloped += [
        ok(T + f"cms encrypt --in plain.txt --out t{i}.der {to} {options}"),
        ok(f"openssl cms -decrypt -binary -inform DER -in t{i}.der {theirs(who)} -out o{i}.txt && cmp o{i}.txt plain.txt"),
        ok(T + f"cms decrypt --in t{i}.der {ours(who)} --out b{i}.txt && cmp b{i}.txt plain.txt")]
for i, (who, options) in enumerate([
        ("rsa2048", "-aes128"), ("rsa2048", "-aes256 -recip rsa2048.pem -keyopt rsa_padding_mode:oaep"),
        ("rsa2048", "-aes-256-gcm -keyid"), ("ec256", "-aes128"), ("ec256", "-aes-256-gcm -keyid"), ("ec384", "-aes256"),
        ("ec521", "-aes-128-gcm"), ("password", "-aes128"), ("password", "-aes256")]):
    to = f"-pwri_password {PW}" if who == "password" else ("" if "-recip" in options else f"-recip {who}.pem")
    enveloped += [
        ok(f"openssl cms -encrypt -binary -outform DER -in plain.txt -out p{i}.der {options} {to}"),
        ok(T + f"cms decrypt --in p{i}.der {ours(who)} --out q{i}.txt && cmp q{i}.txt plain.txt")]
enveloped += [ok(T + "cms encrypt --in plain.txt --out all.der --recip rsa2048.pem --recip ec256.pem --recip ec384.pem "
                   f"--password {PW}"),
              ok("openssl cms -encrypt -binary -outform DER -aes128 -in plain.txt -out two.der rsa2048.pem ec256.pem")]
for who in ["rsa2048", "ec256", "ec384", "password"]:
    enveloped += [
        ok(f"openssl cms -decrypt -binary -inform DER -in all.der {theirs(who)} -out all-{who}.txt && cmp all-{who}.txt plain.txt"),
        ok(T + f"cms decrypt --in all.der {ours(who)} --out all-{who}.t && cmp all-{who}.t plain.txt")]
enveloped += [ok(T + f"cms decrypt --in two.der {ours(who)} --out two-{who}.t && cmp two-{who}.t plain.txt")
              for who in ["rsa2048", "ec256"]]

# ts: requests, replies and checks through tessel and OpenSSL's ts command.
reply = T + "ts reply --key tsa.key --cert tsa.pem --policy 1.2.3.4.1"


def accepts(q, resp):
    return ok(f"openssl ts -verify -queryfile {q} -in {resp} -CAfile ca.pem -untrusted tsa.pem", has=["Verification: OK"])


ts = [
    ok("printf 'stamp me\\n' > data && cp $data/keys/ec256.pkcs8.pem tsa.key"),
    ok("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout ca.key -subj /CN=Root -days 9 "
       "-addext basicConstraints=critical,CA:TRUE -addext keyUsage=critical,keyCertSign -out ca.pem"),
    ok("openssl req -x509 -new -key tsa.key -CA ca.pem -CAkey ca.key -subj /CN=TSA -days 9 "
       "-addext extendedKeyUsage=critical,timeStamping -out tsa.pem"),
    ok(T + "ts query --data data --policy 1.2.3.4.1 --out q.tsq"),
    ok(reply + " --query q.tsq --serial 0A0B --out r.tsr"),
    accepts("q.tsq", "r.tsr"),
    ok(T + "ts verify --query q.tsq --in r.tsr --CAfile ca.pem", has=["code 0: "]),
    ok("openssl ts -query -data data -cert -out oq.tsq", note="OpenSSL's request answered by tessel, and tessel's by OpenSSL"),
    ok(reply + " --query oq.tsq --out or.tsr"),
    accepts("oq.tsq", "or.tsr"),
    ok("openssl ts -query -data data -out nocert.tsq"),
    r(reply + " --query nocert.tsq", 2, has=["nocert.tsq: not a time-stamp request"],
      note="without -cert OpenSSL leaves certReq out, and such requests are refused"),
]
for i, args in enumerate(["-no_nonce", "-sha384 -tspolicy 1.2.3.4.1", "-sha512 -no_nonce -tspolicy 1.2.3.4.1"]):
    ts += [ok(f"openssl ts -query -data data -cert {args} -out v{i}.tsq"), ok(reply + f" --query v{i}.tsq --out v{i}.tsr"),
           accepts(f"v{i}.tsq", f"v{i}.tsr"), ok(T + f"ts verify --query v{i}.tsq --in v{i}.tsr --CAfile ca.pem")]
ts += [
    ok("printf '[ tsa ]\\ndefault_tsa = t\\n[ t ]\\nserial = ./serial\\nsigner_cert = ./tsa.pem\\nsigner_key = ./tsa.key\\n"
       "signer_digest = sha256\\ndefault_policy = 1.2.3.4.1\\ndigests = sha256\\ness_cert_id_alg = sha256\\n' > tsa.cnf "
       "&& echo 01 > serial"),
    ok("openssl ts -reply -config tsa.cnf -queryfile q.tsq -out o.tsr"),
    ok(T + "ts verify --query q.tsq --in o.tsr --CAfile ca.pem"),
    ok(T + "ts query --data tsa.pem --no-nonce --out other.tsq"),
    r(T + "ts verify --query other.tsq --in r.tsr", 1, has=["code 4: "], note="checked against another request"),
    ok(T + "ts query --data data --policy 1.2.9 --no-cert --out p.tsq"),
    r(reply + " --query p.tsq --out p.tsr", 1),
    r("openssl ts -reply -in p.tsr -text", has=["Status: Rejected."]),
]
ts += [usage(T + a) for a in [
    "ts", "ts stamp", "ts query", "ts query --data data --digest 00", "ts query --digest abcd",
    "ts query --data data --hash md5", "ts query --data data --policy 1.x", "ts query --data data --out",
    "ts reply --query q.tsq --key tsa.key --cert tsa.pem"]]
ts += [usage(reply + " --query data"), usage(T + "ts reply --query q.tsq --key tsa.key --cert data --policy 1.2.3.4.1"),
       usage(reply + " --query q.tsq --serial 0g")]
ts += [usage(T + a) for a in ["ts reply --query q.tsq --key tsa.key --cert tsa.pem --policy 3.1",
                              "ts verify --query q.tsq", "ts verify --query q.tsq --in q.tsq"]]
ts += [ok(T + "ts " + j, starts="usage: tessel ts") for j in ["--help", "query --help", "reply --help", "verify --help"]]

# issue: the small PKI of the README, judged by OpenSSL; OpenSSL's requests of every key type issued.
issue = [ok(T + s) for s in [
    "genkey ec --curve P-384 --out root.key --password rootpw",
    "ca root --key root.key --password rootpw --subject /C=LV/O=Example/CN=Root --days 3650 --path-len 1 --out root.pem",
    "genkey rsa --bits 2048 --out ca.key",
    "req --key ca.key --subject /O=Example/CN=CA --out ca.csr",
    "ca issue --ca root.pem --ca-key root.key --password rootpw --req ca.csr --ca-cert --path-len 0 --out ca.pem",
    "req --newkey ed25519 --keyout host.key --subject /CN=host.example --san DNS:host.example,IP:192.0.2.7 "
    "--key-usage digitalSignature,serverAuth --out host.csr",
    "ca issue --ca ca.pem --ca-key ca.key --req host.csr --pss --crl-url http://pki.example/ca.crl --out host.pem",
    "ca crl --ca ca.pem --ca-key ca.key --revoke 0A1B2C3D:1 --revoke 7F --number 12 --out ca.crl"]]
issue += [
    ok("openssl req -in host.csr -noout -verify -text", note="the request as OpenSSL reads it",
       has=["verify OK", "DNS:host.example, IP Address:192.0.2.7", "Digital Signature", "TLS Web Server Authentication"]),
    ok("openssl verify -x509_strict -verify_hostname host.example -verify_ip 192.0.2.7 -CAfile root.pem "
       "-untrusted ca.pem host.pem"),
    ok("openssl crl -in ca.crl -CAfile ca.pem -noout -text",
       has=["verify OK", "Serial Number: 0A1B2C3D", "Key Compromise", "X509v3 CRL Number: \n                12"]),
    ok("openssl pkey -in root.key -passin pass:rootpw -noout", note="the root's key is encrypted, the others are plain"),
    r("openssl pkey -in root.key -passin pass:wrong -noout", 1),
    ok("openssl pkey -in host.key -noout"),
    ok(T + "genkey ec --out u.key --password 'p\u00e4ssword' && openssl pkey -in u.key -passin 'pass:p\u00e4ssword' -noout",
       note="a UTF-8 password"),
    ok("openssl x509 -in ca.pem -noout -ext basicConstraints,keyUsage", has=["critical\n    CA:TRUE, pathlen:0"]),
    r(T + "ca issue --ca ca.pem --ca-key root.key --password rootpw --req host.csr", 2),
    r(T + "ca root --key root.key --password nope --subject /CN=x", 1),
    r(T + "ca crl --ca ca.pem --ca-key ca.key --number -1", 2),
    r(T + "ca crl --ca ca.pem --ca-key ca.key --revoke 80", 2, note="serials are positive"),
]
for key in ["rsa2048", "rsa4096", "ec256", "ec384", "ec521", "ed25519"]:
    issue += [
        ok(f"openssl req -new -key $data/keys/{key}.pkcs8.pem -subj '/O=peer/CN={key}.example' -addext "
           f"subjectAltName=DNS:{key}.example -addext keyUsage=critical,digitalSignature -out {key}.csr"),
        ok(T + f"ca issue --ca root.pem --ca-key root.key --password rootpw --req {key}.csr --out {key}.pem"),
        ok(f"openssl verify -x509_strict -verify_hostname {key}.example -CAfile root.pem {key}.pem")]
# Names built by OpenSSL (a multi-valued RDN, a repeated CN, UTF-8) read as OpenSSL sees them; the
# canonical writing of them is read back by OpenSSL with the same entries.
issue += [
    ok("openssl req -new -key $data/keys/ec256.pkcs8.pem -utf8 -multivalue-rdn -subj "
       "'/C=LV/O=P\u0101rbaude/OU=unit+title=extra/CN=one/CN=two/serialNumber=42' -out n.csr"),
    ok(T + "dump n.csr", has=["<C=LV, O=P\u0101rbaude, OU=unit, CN=two, SerialNumber=42>"]),
    ok(T + "ca issue --ca root.pem --ca-key root.key --password rootpw --req n.csr --out n.pem"),
    r("openssl x509 -in n.pem -noout -subject -nameopt compat",
      out=["subject=/C=LV/O=P\\xC4\\x81rbaude/OU=unit/CN=two/serialNumber=42\n"])]
issue.append(ok(T + "genkey ed25519 --out k.pem"))
issue += [usage(T + a) for a in [
    "genkey", "genkey dsa", "genkey rsa --bits 1024", "genkey rsa --bits 8192", "genkey ec --curve P-999",
    "genkey ed25519 --bits 2048", "genkey rsa --bits", "req --key k.pem", "req --key k.pem --subject CN=x",
    "req --key k.pem --subject /CN=x --san DNS", "req --key k.pem --subject /CN=x --key-usage everything",
    "req --key k.pem --subject /CN=x --digest sha256", "req --newkey rsa:1000 --keyout x.key --subject /CN=x",
    "req --key k.pem --newkey ec --subject /CN=x", "ca", "ca mint", "ca root --subject /CN=x",
    "ca issue --ca k.pem --ca-key k.pem --req r.csr", "ca crl --ca missing.pem",
    "ca root --key k.pem --subject /CN=x --days many"]]
issue += [ok(T + c + " --help", starts="usage: tessel " + c) for c in ["genkey", "req", "ca"]]

# chains: every key type and padding, rotated so that each signs in every position of a chain
# (root, issuing CA, server leaf); OpenSSL validates each chain, and tessel those without RSA-PSS.
SCHEMES = [("rsa2048", "--digest sha256"), ("rsa2048", "--digest sha256 --pss"), ("rsa3072", "--digest sha384"),
           ("rsa3072", "--digest sha384 --pss"), ("rsa4096", "--digest sha512"), ("rsa4096", "--digest sha256 --pss"),
           ("ec256", "--digest sha256"), ("ec384", "--digest sha384"), ("ec521", "--digest sha512"), ("ed25519", "")]
chains = []
for i in range(len(SCHEMES)):
    (root, rootSigns), (ca, caSigns), (leaf, _) = (SCHEMES[(i + k) % len(SCHEMES)] for k in range(3))
    key = "$data/keys/{}.pkcs8.pem".format
    chains += [ok(T + f"ca root --key {key(root)} --subject '/C=LV/O=tessel tests/CN=Root' --days 9000 --path-len 1 "
                  f"{rootSigns} --out r{i}.pem", note="the root outlives 2049: its notAfter is a GeneralizedTime"),
               ok(T + f"req --key {key(ca)} --subject '/C=LV/O=tessel tests/CN=Issuing CA' --out c{i}.csr"),
               ok(T + f"ca issue --ca r{i}.pem --ca-key {key(root)} --req c{i}.csr --ca-cert --path-len 0 {rootSigns} "
                  f"--out c{i}.pem"),
               ok(T + f"req --key {key(leaf)} --subject '/C=LV/O=tessel tests/CN=host.example' --san "
                  f"DNS:host.example,IP:192.0.2.7 --key-usage digitalSignature,serverAuth,clientAuth --out l{i}.csr"),
               ok(T + f"ca issue --ca c{i}.pem --ca-key {key(ca)} --req l{i}.csr --crl-url http://crl.example/ca.crl "
                  f"{caSigns} --out l{i}.pem"),
               ok(f"openssl verify -x509_strict -verify_hostname host.example -verify_ip 192.0.2.7 -CAfile r{i}.pem "
                  f"-untrusted c{i}.pem l{i}.pem")]
    if "--pss" not in rootSigns + caSigns:  # the validator reads PKCS#1 v1.5, ECDSA and Ed25519 identifiers only
        chains.append(ok(f"cat l{i}.pem c{i}.pem > chain{i}.pem && " + T + f"verify chain{i}.pem --ca r{i}.pem "
                         "--host host.example", ends="\ncode 0: chain valid\n"))
# The extensions of a leaf as OpenSSL reads them, criticality included, naming its issuer's key.
L = "\n                "
chains += [
    ok(T + "ca issue --ca c6.pem --ca-key $data/keys/ec384.pkcs8.pem --req l6.csr --san "
       "DNS:host.example,IP:192.0.2.7,email:ops@host.example,URI:https://host.example/ --key-usage "
       "digitalSignature,keyEncipherment,decipherOnly,serverAuth,clientAuth,codeSigning,timeStamping,OCSPSigning "
       "--crl-url http://crl.example/ca.crl --out x.pem"),
    ok("openssl x509 -in x.pem -noout -text", has=[
        "X509v3 Key Usage: critical" + L + "Digital Signature, Key Encipherment, Decipher Only",
        "X509v3 Extended Key Usage: " + L + "TLS Web Server Authentication, TLS Web Client Authentication, "
        "Code Signing, Time Stamping, OCSP Signing",
        "X509v3 Subject Alternative Name: " + L +
        "DNS:host.example, IP Address:192.0.2.7, email:ops@host.example, URI:https://host.example/",
        "X509v3 CRL Distribution Points: " + L + "Full Name:" + L + "  URI:http://crl.example/ca.crl"]),
    ok('test "$(openssl x509 -in c6.pem -noout -ext subjectKeyIdentifier | tail -1)" = '
       '"$(openssl x509 -in x.pem -noout -ext authorityKeyIdentifier | tail -1)"'),
]

# pkcs12: what the program exports OpenSSL reads; what OpenSSL exports (default, -legacy, -nomac,
# several certificates, names, empty and absent passwords, RSA, P-256 and Ed25519 keys) the
# program describes and takes apart to the fixture key and certificates.
P = T + "pkcs12 "


def samekey(key, f, passin=""):
    return ok(f"openssl pkey -in $data/keys/{key}.pkcs8.pem -pubout > {f}.want && "
              f"openssl pkey -in {f} {passin}-pubout | cmp - {f}.want")


pkcs12 = [selfsigned(k) for k in ["rsa2048", "ec256", "ed25519"]]
pkcs12.append(ok("openssl req -x509 -new -key ec256.key -subj /CN=ca -days 2 -out ca.pem && cat ca.pem rsa2048.pem > two.pem"))
for i, (t, o) in enumerate([("", ""), ("--legacy --iter 1000 ", "-legacy ")]):
    pkcs12 += [ok(P + f"--export --key ec256.key --cert ec256.pem --chain ca.pem --name leaf --password pw {t}--out t{i}.p12"),
               ok(f"openssl pkcs12 -in t{i}.p12 -nodes -passin pass:pw {o}-out all{i}.pem"),
               r(f"grep -c 'friendlyName: leaf' all{i}.pem", out=["2\n"], note="key and certificate"),
               samekey("ec256", f"all{i}.pem")]
for i, (key, options, read, info) in enumerate([
        ("rsa2048", "--password pw", "-passin pass:pw", "PBES2, PBKDF2, AES-256-CBC, Iteration 2048, PRF hmacWithSHA256"),
        ("ec256", "--legacy --password pw", "-legacy -passin pass:pw", "pbeWithSHA1And40BitRC2-CBC"),
        ("ec256", "--name 'b\u00f6b' --password ''", "-passin pass:", "")]):
    pkcs12 += [
        ok(P + f"--export --key {key}.key --cert {key}.pem --chain ca.pem {options} --out w{i}.p12"),
        ok(f"openssl pkcs12 -in w{i}.p12 -nodes {read} -info -out w{i}.pem 2>&1 && cat w{i}.pem", has=[info, "subject=CN = ca"]),
        samekey(key, f"w{i}.pem"),
        r(f"openssl pkcs12 -in w{i}.p12 -nodes -passin pass:wrong", has=["Mac verify error"])]
pkcs12.append(r("grep -ac \"$(printf 'friendlyName: b\\366b')\" w2.pem", out=["2\n"],
                note="the name as a BMPString, which OpenSSL prints in Latin-1"))
for i, (key, options, password, mac, has, certs) in enumerate([
        ("rsa2048", "-passout pass:pw", "--password pw", "HMAC-SHA256, 2048 iterations", [], 1),
        ("rsa2048", "-legacy -passout pass:pw", "--password pw", "HMAC-SHA1, ", [], 1),
        ("rsa2048", "-legacy -keypbe PBE-SHA1-RC2-128 -certpbe PBE-SHA1-2DES -passout pass:pw", "--password pw",
         "HMAC-SHA1, ", [], 1),
        ("ec256", "-nomac -passout pass:pw", "--password pw", "none", [], 1),
        ("ec256", "-certfile two.pem -name alice -macalg sha384 -passout pass:pw", "--password pw", "HMAC-SHA384, ",
         ["  friendlyName: alice\n"], 3),
        ("ed25519", "-macalg sha512 -passout pass:p\u00e4ss", "--password p\u00e4ss", "HMAC-SHA512, ", [], 1),
        ("ed25519", "-passout pass:", "--password ''", "HMAC-SHA256, ", [], 1),
        ("ed25519", "-passout pass:", "--no-password", "HMAC-SHA256, ", [], 1),
        ("rsa2048", "-legacy -passout pass:", "--no-password", "HMAC-SHA1, ", [], 1)]):
    pkcs12 += [
        ok(f"openssl pkcs12 -export -inkey {key}.key -in {key}.pem {options} -out f{i}.p12"),
        ok(P + f"--info --in f{i}.p12 {password}", starts="MAC: " + mac, has=has),
        ok(P + f"--extract --in f{i}.p12 {password} --out x{i}.pem"),
        samekey(key, f"x{i}.pem"),
        ok(f"openssl x509 -in x{i}.pem | cmp - {key}.pem", note="the key's certificate, found by localKeyId, first"),
        r(f"grep -c 'BEGIN CERTIFICATE' x{i}.pem", out=[f"{certs}\n"])]
pkcs12 += [
    ok("openssl pkcs12 -export -inkey ec256.key -in ec256.pem -certfile ca.pem -passout pass:pw -out o.p12"),
    ok(P + "--info --in o.p12 --password pw", has=["MAC: HMAC-SHA256, 2048 iterations\ncontent 0: encrypted-data, PBES2, "
                                                   "PBKDF2-hmacWithSHA256, AES-256-CBC, 2048 iterations\n"]),
    ok(P + "--extract --in o.p12 --password pw --out-password out --out x.pem"),
    samekey("ec256", "x.pem", "-passin pass:out "),
    r("openssl crl2pkcs7 -nocrl -certfile x.pem | openssl pkcs7 -print_certs | grep -c subject=", out=["2\n"]),
    r(P + "--info --in o.p12 --password wrong", 1, has=["o.p12: MAC verification failed: wrong password or altered file"]),
    ok(P + "--info --in $data/keys/ec256.pbmac1.p12 --password pw",
       starts="MAC: PBMAC1, PBKDF2-HMAC-SHA256, HMAC-SHA256, 1000 iterations\n", note="made by make_pbmac1.py"),
    ok(P + "--extract --in $data/keys/ec256.pbmac1.p12 --password pw --out m.pem"), samekey("ec256", "m.pem"),
    r(P + "--info --in $data/keys/ec256.pbmac1.p12 --password px", 1, has=["MAC verification failed"]),
    r(P + "--info", 2), r(P + "--info --extract --in o.p12", 2), r(P + "--export --key ec256.key", 2), ok(P + "--help"),
]

# The old validator's output, kept behind --legacy, is what the runs above check; the default is
# the searching validator, whose runs follow.
def legacy(run):
    cmd = run["run"]
    at = cmd.find("$tool verify ")
    if at < 0 or "--legacy" in cmd or not any(o in cmd for o in ("--ca", "--cerm", "--time")):
        return run
    end = min([i for i in (cmd.find(" 2>", at), cmd.find(" &&", at)) if i >= 0] or [len(cmd)])
    run["run"] = cmd[:end] + " --legacy" + cmd[end:]
    return run


VD = "$tool verify $data/verify/leaf-chain.pem --ca $data/verify/root.pem "
VERIFY = [
    {"run": "$tool verify $src/examples/site-chain.pem --ca $root --host certauth.cryptomix.com --time 2023-04-01", "status": 0, "needsRoot": True, "ends": "\ncode 0: ok\n"},
    {"run": VD + "--host www.example.com --time 2025-06-15", "status": 0, "ends": "\nchain: CN=cn.example.com\nchain: O=Tessel Verify, CN=Verify CA\nchain: O=Tessel Verify, CN=Verify Root\ncode 0: ok\n"},
    {"run": VD + "--host other.example.com --time 2025-06-15", "status": 1, "ends": "\ncode 14: name does not match the certificate (certificate 0)\n"},
    {"run": VD + "--purpose codeSigning --time 2025-06-15", "status": 1, "ends": "\ncode 15: extended key usage does not allow the purpose (certificate 0)\n"},
    {"run": VD + "--max-depth 0 --time 2025-06-15", "status": 1, "ends": "\ncode 12: chain longer than the maximum depth (certificate 1)\n"},
    {"run": VD + "--legacy --time 2025-06-15", "status": 0, "ends": "\ncode 0: chain valid\n"},
    {"run": "$tool verify $data/verify/leaf-rev-chain.pem --ca $data/verify/root.pem --ca $data/verify/ica-new.crl --ca $data/verify/root.crl --crl-check --time 2025-06-15", "status": 1, "ends": "\ncode 17: certificate revoked (certificate 0)\n"},
    {"run": "$tool verify $data/verify/leaf-rev-chain.pem --ca $data/verify/root.pem --ca $data/verify/ica-old.crl --ca $data/verify/root.crl --crl-check --time 2025-06-15", "status": 0, "ends": "\ncode 0: ok\n"},
    {"run": VD + "--purpose nobody 2>/dev/null", "status": 2},
]

GROUPS = {"tool": TOOL, "cms": cms, "cms_signed": signed, "cms_enveloped": enveloped, "ts": ts, "issue": issue,
          "chains": chains, "pkcs12": pkcs12}
GROUPS = {name: [legacy(x) for x in runs] for name, runs in GROUPS.items()}
GROUPS["tool"] += VERIFY
with open("pki_tool.json", "w") as f:
    f.write('{\n "note": ' + json.dumps(NOTE) + ',\n "groups": {\n')
    f.write(",\n".join("  " + json.dumps(name) + ": [\n" + ",\n".join("   " + json.dumps(x, ensure_ascii=False) for x in runs)
                       + "\n  ]" for name, runs in GROUPS.items()))
    f.write("\n }\n}\n")
