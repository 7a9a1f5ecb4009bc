# shellcheck shell=bash
# The viewpath tells what it does, on demand; what is wrong with it, always.
mkdir near far
ln -s near link
printf abc >far/old
printf abc >near/new
start=$PWD
cd near || exit
told() {
  run "$@" 2>&1 | sed "s|$start|HERE|g" >&2
}
told env NVPATH=missing:. kelvane old new
told env "NVPATH=.;../far" QVR_VP_DEBUG=1 kelvane old new
told env NVPATH=.:../far QVR_VP_DEBUG=1 QVR_VP_SLOW=1 QVR_VP_OFF=1 kelvane old new
# An empty variable is as good as none.
told env NVPATH=.:../far QVR_VP_DEBUG= QVR_VP_OFF= kelvane old new
# The root in another spelling, which counts as the root unless that is switched off.
told env "NVPATH=$start/link:../far" QVR_VP_DEBUG=1 kelvane "$start/link/old" new
told env "NVPATH=$start/link:../far" QVR_VP_DEBUG=1 QVR_VP_XSW=1 kelvane "$start/link/old" new
