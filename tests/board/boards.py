"""The boards: what is emulated, and what Debian has for it."""
import dataclasses


@dataclasses.dataclass(frozen=True)
class Board:
    name: str
    architecture: str  # Debian's word
    emulator: str | None  # of single programs, as binfmt_misc knows it
    kernel: str  # the package
    device_tree: str | None
    modules: tuple[str, ...]
    console: str
    disk: str  # as the board's kernel names it
    qemu: tuple[str, ...]
    disk_options: tuple[str, ...]
    network_options: tuple[str, ...]
    memory: str
    further_packages: tuple[str, ...] = ()


def virtual(machine, name, architecture, emulator, console, kernel, further_packages=()):
    return Board(
        name=name, architecture=architecture, emulator=emulator, kernel=kernel, device_tree=None,
        modules=("virtio_pci", "virtio_blk", "virtio_net", "virtio_rng", "ext4"), console=console,
        disk="/dev/vda", qemu=machine,
        disk_options=("-device", "virtio-blk-pci,drive=disk"),
        network_options=("-device", "virtio-net-pci,netdev=net,romfile=", "-device", "virtio-rng-pci"),
        memory="128M", further_packages=further_packages)


amd64 = ("qemu-system-x86_64", "-M", "q35", "-cpu", "max", "-smp", "2")

boards = {board.name: board for board in (
    virtual(("qemu-system-aarch64", "-M", "virt", "-cpu", "cortex-a53", "-smp", "2"),
            "arm64", "arm64", "qemu-aarch64", "ttyAMA0", "linux-image-cloud-arm64"),
    virtual(amd64, "amd64", "amd64", None, "ttyS0", "linux-image-cloud-amd64"),
    # Two of these; Ansible needs Python on them.
    virtual(amd64, "fleet", "amd64", None, "ttyS0", "linux-image-cloud-amd64",
            ("openssh-server", "python3")),
    Board(
        name="ast2600", architecture="armhf", emulator="qemu-arm", kernel="linux-image-armmp",
        device_tree="aspeed-ast2600-evb.dtb",
        # The network's driver looks for its bus and its transceiver once.
        modules=("mmc_block", "sdhci-of-aspeed", "ext4", "mdio-aspeed", "realtek", "ftgmac100"),
        console="ttyS4", disk="/dev/mmcblk0",
        qemu=("qemu-system-arm", "-M", "ast2600-evb"),
        disk_options=("sd",), network_options=("-net", "nic,netdev=net"), memory="1G"),
)}
