// SPDX-License-Identifier: GPL-2.0
/*
 * The simulated player's board, as its kernel shows it: /proc/boardid (the
 * board identity text, which the player's own kernel provides) and the
 * names of the flash partitions in /proc/mtd and /sys/class/mtd/mtdN/name.
 *
 *   insmod vxboard.ko names=flash0.nvram,flash0.devid,...   (mtd0, mtd1, ...)
 *   cat boardid > /proc/boardid                             (root only)
 *   insmod vxboard.ko boardid=0 ...                         (no /proc/boardid)
 *
 * The distribution kernel has no command-line partition parser, and
 * nandsim names its partitions "NAND simulator partition N": the names are
 * set once, at load, on the partitions nandsim has registered. Every reader
 * then sees the kernel's own tables. /proc/boardid reads as the text last
 * written to it (at most one page); it is 0444, so only root (which may
 * write whatever the mode) sets it.
 */
#include <linux/fs.h>
#include <linux/module.h>
#include <linux/mtd/mtd.h>
#include <linux/mutex.h>
#include <linux/proc_fs.h>
#include <linux/slab.h>
#include <linux/string.h>
#include <linux/uaccess.h>

static char *names;
module_param(names, charp, 0444);
MODULE_PARM_DESC(names, "names of mtd0, mtd1, ... in order, separated by commas");

static bool with_boardid = true;
module_param_named(boardid, with_boardid, bool, 0444);
MODULE_PARM_DESC(boardid, "whether there is a /proc/boardid (default yes)");

static char boardid[PAGE_SIZE];
static size_t boardid_length;
static DEFINE_MUTEX(boardid_lock);

static ssize_t boardid_read(struct file *file, char __user *buf, size_t count, loff_t *pos)
{
	ssize_t n;

	mutex_lock(&boardid_lock);
	n = simple_read_from_buffer(buf, count, pos, boardid, boardid_length);
	mutex_unlock(&boardid_lock);
	return n;
}

/* A write from offset 0 starts the text anew. */
static ssize_t boardid_write(struct file *file, const char __user *buf, size_t count, loff_t *pos)
{
	ssize_t n;

	mutex_lock(&boardid_lock);
	if (*pos == 0)
		boardid_length = 0;
	n = simple_write_to_buffer(boardid, sizeof(boardid), pos, buf, count);
	if (n > 0 && *pos > boardid_length)
		boardid_length = *pos;
	mutex_unlock(&boardid_lock);
	return n;
}

static const struct proc_ops boardid_ops = {
	.proc_read = boardid_read,
	.proc_write = boardid_write,
	.proc_lseek = default_llseek,
};

/*
 * Partition N takes the Nth name. The partition frees its name when it goes
 * (so the copy is ours to give); its old name is left as it was, a few
 * bytes, rather than freed on the guess of how it was allocated.
 */
static int rename_partitions(void)
{
	char *list, *cursor, *name;
	int index = 0;

	if (!names)
		return 0;
	list = kstrdup(names, GFP_KERNEL);
	if (!list)
		return -ENOMEM;
	cursor = list;
	while ((name = strsep(&cursor, ",")) != NULL) {
		struct mtd_info *mtd = get_mtd_device(NULL, index);
		char *copy;

		if (IS_ERR(mtd)) {
			pr_err("vxboard: no mtd%d for the name %s\n", index, name);
			kfree(list);
			return PTR_ERR(mtd);
		}
		copy = kstrdup(name, GFP_KERNEL);
		if (!copy) {
			put_mtd_device(mtd);
			kfree(list);
			return -ENOMEM;
		}
		mtd->name = copy;
		put_mtd_device(mtd);
		index++;
	}
	kfree(list);
	return 0;
}

static int __init vxboard_init(void)
{
	int err = rename_partitions();

	if (err)
		return err;
	if (with_boardid && !proc_create("boardid", 0444, NULL, &boardid_ops))
		return -ENOMEM;
	return 0;
}

static void __exit vxboard_exit(void)
{
	if (with_boardid)
		remove_proc_entry("boardid", NULL);
}

module_init(vxboard_init);
module_exit(vxboard_exit);
MODULE_DESCRIPTION("The simulated player's board identity and flash partition names");
MODULE_LICENSE("GPL");
