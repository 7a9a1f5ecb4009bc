# shellcheck shell=bash
# With a viewpath the inputs are found in the second tree, and the output goes to the first. Nothing in
# the second changes.
umask 022
mkdir -p near far/images
printf abc >far/images/old
printf abd >far/images/new
printf 'names ' >far/names
printf 'an older patch' >far/patch
chmod 440 far/patch
state_of_far() {
  find far -printf '%p %m %s %T@\n' | sort
  cat far/names far/patch far/images/*
}
state_of_far >before
cd near || exit
export NVPATH=$PWD:$PWD/../far

run kelvane -exclude names images/old images/new
hex diff.out
run kelvane -exclude ^/names -o ^/named ^/images/old "$PWD/images/new"
cmp diff.out named
run kelvane images/missing images/new
run kelvane ^/missing images/new

# A patch that the second tree has is brought to the first before it is written over, and a folder of
# the second tree is made in the first.
run kelvane -o patch images/old images/new
cmp diff.out patch
stat -c '%n %a' patch
run kelvane -o images/patch images/old images/new
cmp diff.out images/patch

# Without the viewpath nothing is found.
run env QVR_VP_OFF=1 kelvane images/old images/new
run env QVR_VP_OFF=1 kelvane ^/images/old images/new
run env -u NVPATH kelvane images/old images/new

cd .. || exit
state_of_far | cmp before -
find near | sort
