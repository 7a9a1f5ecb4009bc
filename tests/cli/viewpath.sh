# shellcheck shell=bash
# Two trees laid over each other: what the first lacks is read from the second, and the patch is
# written in the first. The second is never changed.
mkdir first second
printf abc >second/old
printf abc >second/new
printf abc >first/new
chmod -R a-w second
export NVPATH=$PWD/first:$PWD/second
cd first || exit
run kelvane old new
run kelvane ^/old ^/new -o ^/patch
run kelvane nowhere new
QVR_VP_OFF=1 run kelvane old new
NVPATH=$PWD:$PWD/../third run kelvane new new 2>&1 | sed -e "s,$PWD,HERE,g" -e "s,${PWD%/first},ROOT,g"
cmp diff.out patch
cd .. || exit
ls first second
