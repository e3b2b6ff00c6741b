// SPDX-License-Identifier: GPL-2.0
/*
 * zebtest: a test stand-in for the steering module and the core data driver,
 * so that an unmodified zebusrd can run against a real kernel.
 *
 * It registers the generic netlink families DULOX_ZEB and DULOX_CORE,
 * publishes /proc/zeb/dulox_zeb_{caps,flows,ss_flows} as one page each for
 * user space to map shared, takes its tables and answers from
 * /proc/zeb/control (see README.md) and writes every request it receives,
 * decoded, to /proc/zeb/transcript.
 */
#include <linux/delay.h>
#include <linux/mm.h>
#include <linux/module.h>
#include <linux/mutex.h>
#include <linux/proc_fs.h>
#include <linux/slab.h>
#include <linux/uaccess.h>
#include <linux/vmalloc.h>
#include <net/genetlink.h>

#define ZT_CPUS 8
#define ZT_FLOWS 128
#define ZT_PIDS 32
#define ZT_TRANSCRIPT_SIZE (512 * 1024)

/* Shared-memory records, packed as the daemon reads them. */
struct zt_cap {
	u64 pps, avg_pps, bps;
	u16 cpu;
} __packed;

struct zt_flow {
	u64 rx_pps, avg_pps, rx_bps;
	u32 hash;
	u16 cpu;
} __packed;

/* Netlink records. */
struct zt_sugg {
	u32 hash, type;
	u16 cur_cpu, dest_cpu;
} __packed;

struct zt_seg {
	u32 hash, enable;
} __packed;

struct zt_pid_bps {
	struct {
		u64 tx_bps;
		u32 pid, boost_remaining_ms;
	} list[ZT_PIDS];
	u64 timestamp;
	u16 list_len;
	u8 valid;
	u8 pad[5];
};

struct zt_pid_boost {
	struct {
		u32 boost_en, boost_period, pid;
	} list[ZT_PIDS];
	u8 reserved[8];
	u16 list_len;
	u8 valid;
	u8 pad[5];
};

enum { ZT_CMD_SUGG = 2, ZT_CMD_SEG = 3, ZT_CMD_SYNC = 4 };
enum { ZT_CMD_PID_BPS = 1, ZT_CMD_PID_BOOST = 2 };
/* Answers carry their code or record in attribute 1; requests use 3 and 4. */
enum { ZT_ATTR_ANSWER = 1, ZT_ATTR_A = 3, ZT_ATTR_B = 4, ZT_ATTR_MAX = 4 };
enum { ZT_SYNC, ZT_SUGG, ZT_SEG, ZT_KINDS };
enum { ZT_TAB_CAPS, ZT_TAB_FLOWS, ZT_TAB_SS, ZT_TABLES };

static const char *const zt_kind_names[ZT_KINDS] = { "sync", "sugg", "seg" };
static const char *const zt_table_names[ZT_TABLES] = {
	"dulox_zeb_caps", "dulox_zeb_flows", "dulox_zeb_ss_flows"
};

/* Everything below is guarded by zt_lock. */
static DEFINE_MUTEX(zt_lock);
static struct zt_cap zt_caps[ZT_CPUS];
static struct zt_flow zt_gold[ZT_FLOWS], zt_ss[ZT_FLOWS];
static unsigned int zt_n_gold, zt_n_ss;
static struct zt_pid_bps zt_procs;
static struct {
	int code;
	unsigned int count;
} zt_armed[ZT_KINDS];
static unsigned int zt_silent_syncs;
static unsigned int zt_sync_delay_ms = 100;
static char *zt_transcript;
static size_t zt_transcript_len;

static void *zt_pages[ZT_TABLES];
static struct proc_dir_entry *zt_dir;

static __printf(1, 2) void zt_note(const char *fmt, ...)
{
	size_t room = ZT_TRANSCRIPT_SIZE - zt_transcript_len;
	va_list ap;
	int n;

	if (room < 2)
		return;
	va_start(ap, fmt);
	n = vscnprintf(zt_transcript + zt_transcript_len, room - 1, fmt, ap);
	va_end(ap);
	zt_transcript_len += n;
	zt_transcript[zt_transcript_len++] = '\n';
}

/* Rewrites the three pages from the scenario; readers see it at once. */
static void zt_publish(void)
{
	u8 *flows = zt_pages[ZT_TAB_FLOWS], *ss = zt_pages[ZT_TAB_SS];
	u16 n;

	memcpy(zt_pages[ZT_TAB_CAPS], zt_caps, sizeof(zt_caps));
	n = zt_n_gold;
	memcpy(flows, &n, sizeof(n));
	memcpy(flows + 2, zt_gold, zt_n_gold * sizeof(struct zt_flow));
	n = zt_n_ss;
	memcpy(ss, &n, sizeof(n));
	memcpy(ss + 2, zt_ss, zt_n_ss * sizeof(struct zt_flow));
}

/* The armed code for the next request of a kind, or 0 (accept) when none. */
static int zt_take_code(int kind)
{
	if (!zt_armed[kind].count)
		return 0;
	zt_armed[kind].count--;
	return zt_armed[kind].code;
}

static int zt_find_flow(struct zt_flow *flows, unsigned int n, u32 hash, u16 cpu)
{
	unsigned int i;

	for (i = 0; i < n; i++)
		if (flows[i].hash == hash && flows[i].cpu == cpu)
			return i;
	return -1;
}

/*
 * The request's framing as it arrived: sender port, header fields, the number
 * of attributes and the first one's type and length, so that a transcript
 * line shows every byte the daemon chose.
 */
static int zt_head(char *buf, size_t size, const char *kind, struct genl_info *info)
{
	const struct nlmsghdr *nlh = info->nlhdr;
	const struct nlattr *first = genlmsg_data(info->genlhdr), *nla;
	int len = genlmsg_len(info->genlhdr), rem, count = 0;

	nla_for_each_attr(nla, first, len, rem)
		count++;
	return scnprintf(buf, size, "%s port=%u seq=%u pid=%u len=%u type=%u flags=%u ver=%u attrs=%d first=%u/%u",
			 kind, info->snd_portid, nlh->nlmsg_seq, nlh->nlmsg_pid, nlh->nlmsg_len,
			 nlh->nlmsg_type, nlh->nlmsg_flags, info->genlhdr->version, count,
			 count ? nla_type(first) : 0, count ? first->nla_len : 0);
}

static int zt_reply(struct genl_info *info, const struct genl_family *family, const void *data,
		    int size)
{
	struct sk_buff *skb = genlmsg_new(nla_total_size(size), GFP_KERNEL);
	void *hdr;

	if (!skb)
		return -ENOMEM;
	hdr = genlmsg_put(skb, info->snd_portid, info->snd_seq, family, 0, info->genlhdr->cmd);
	if (!hdr || nla_put(skb, ZT_ATTR_ANSWER, size, data)) {
		nlmsg_free(skb);
		return -EMSGSIZE;
	}
	genlmsg_end(skb, hdr);
	return genlmsg_reply(skb, info);
}

static struct genl_family zt_zeb_family, zt_core_family;

/* An accepted move takes effect in the tables, so the daemon sees it next cycle. */
static int zt_apply_move(const struct zt_sugg *s)
{
	int i;

	switch (s->type) {
	case 1: /* every flow of the silver CPU goes up: it is no longer loaded */
		for (i = 0; i < ZT_CPUS; i++)
			if (zt_caps[i].cpu == s->cur_cpu)
				break;
		if (i == ZT_CPUS)
			return -EINVAL;
		zt_caps[i].pps = zt_caps[i].avg_pps;
		return 0;
	case 2: /* down to silver: it leaves the gold table */
		i = zt_find_flow(zt_gold, zt_n_gold, s->hash, s->cur_cpu);
		if (i < 0)
			return -ENOENT;
		memmove(&zt_gold[i], &zt_gold[i + 1], (zt_n_gold - i - 1) * sizeof(zt_gold[0]));
		zt_n_gold--;
		return 0;
	case 3:
		i = zt_find_flow(zt_gold, zt_n_gold, s->hash, s->cur_cpu);
		if (i < 0)
			return -ENOENT;
		zt_gold[i].cpu = s->dest_cpu;
		return 0;
	}
	return -EINVAL;
}

static int zt_zeb_doit(struct sk_buff *skb, struct genl_info *info)
{
	int kind = info->genlhdr->cmd == ZT_CMD_SYNC ? ZT_SYNC :
		   info->genlhdr->cmd == ZT_CMD_SUGG ? ZT_SUGG : ZT_SEG;
	int attr = kind == ZT_SEG ? ZT_ATTR_B : ZT_ATTR_A;
	char line[320];
	unsigned int delay = 0;
	bool silent = false;
	int n, code;

	mutex_lock(&zt_lock);
	n = zt_head(line, sizeof(line), zt_kind_names[kind], info);
	code = zt_take_code(kind);
	if (!info->attrs[attr]) {
		code = -EINVAL;
	} else if (kind == ZT_SEG) {
		struct zt_seg s;
		unsigned int i;

		nla_memcpy(&s, info->attrs[attr], sizeof(s));
		n += scnprintf(line + n, sizeof(line) - n, " hash=0x%x enable=%u", s.hash, s.enable);
		for (i = 0; i < zt_n_ss && zt_ss[i].hash != s.hash; i++)
			;
		if (!code && i == zt_n_ss)
			code = -ENOENT;
	} else {
		struct zt_sugg s;

		nla_memcpy(&s, info->attrs[attr], sizeof(s));
		n += scnprintf(line + n, sizeof(line) - n, " hash=0x%x sugg_type=%u cur=%u dest=%u", s.hash,
			       s.type, s.cur_cpu, s.dest_cpu);
		if (kind == ZT_SUGG && !code)
			code = zt_apply_move(&s);
		if (kind == ZT_SYNC && zt_silent_syncs) {
			zt_silent_syncs--;
			silent = true;
		}
		if (kind == ZT_SYNC)
			delay = zt_sync_delay_ms;
	}
	if (silent)
		zt_note("%s => silent", line);
	else
		zt_note("%s => %d", line, code);
	zt_publish();
	mutex_unlock(&zt_lock);

	if (silent)
		return 0;
	/* The daemon cycles as fast as syncs are answered; this sets its pace. */
	if (delay)
		msleep(delay);
	return zt_reply(info, &zt_zeb_family, &code, sizeof(code));
}

static bool zt_all_zero(const void *p, size_t n)
{
	return !memchr_inv(p, 0, n);
}

static int zt_core_doit(struct sk_buff *skb, struct genl_info *info)
{
	char line[640];
	int n, err;

	mutex_lock(&zt_lock);
	n = zt_head(line, sizeof(line), info->genlhdr->cmd == ZT_CMD_PID_BPS ? "pid_bps" : "boost", info);
	if (info->genlhdr->cmd == ZT_CMD_PID_BPS) {
		const struct nlattr *a = info->attrs[ZT_ATTR_A];

		zt_note("%s zero=%d => list_len=%u valid=%u", line,
			a && zt_all_zero(nla_data(a), nla_len(a)), zt_procs.list_len, zt_procs.valid);
		err = a ? zt_reply(info, &zt_core_family, &zt_procs, sizeof(zt_procs)) : -EINVAL;
		mutex_unlock(&zt_lock);
		return err;
	}
	if (info->attrs[ZT_ATTR_B]) {
		struct zt_pid_boost b;
		unsigned int i, j, len;

		nla_memcpy(&b, info->attrs[ZT_ATTR_B], sizeof(b));
		len = min_t(unsigned int, b.list_len, ZT_PIDS);
		n += scnprintf(line + n, sizeof(line) - n, " list_len=%u valid=%u entries=", b.list_len,
			       b.valid);
		for (i = 0; i < len; i++) {
			n += scnprintf(line + n, sizeof(line) - n, "%s%u/%u/%u", i ? "," : "",
				       b.list[i].boost_en, b.list[i].boost_period, b.list[i].pid);
			for (j = 0; b.list[i].boost_en && j < zt_procs.list_len && j < ZT_PIDS; j++)
				if (zt_procs.list[j].pid == b.list[i].pid)
					zt_procs.list[j].boost_remaining_ms = b.list[i].boost_period;
		}
		/* Everything past the entries must be zero but list_len and valid. */
		n += scnprintf(line + n, sizeof(line) - n, " rest_zero=%d",
			       zt_all_zero(&b.list[len], sizeof(b.list[0]) * (ZT_PIDS - len)) &&
				       zt_all_zero(b.reserved, sizeof(b.reserved)) &&
				       zt_all_zero(b.pad, sizeof(b.pad)));
	}
	zt_note("%s => none", line);
	mutex_unlock(&zt_lock);
	return 0;
}

/* Exact lengths: the kernel itself rejects a record of any other size. */
static const struct nla_policy zt_zeb_policy[ZT_ATTR_MAX + 1] = {
	[ZT_ATTR_A] = NLA_POLICY_EXACT_LEN(sizeof(struct zt_sugg)),
	[ZT_ATTR_B] = NLA_POLICY_EXACT_LEN(sizeof(struct zt_seg)),
};

static const struct nla_policy zt_core_policy[ZT_ATTR_MAX + 1] = {
	[ZT_ATTR_A] = NLA_POLICY_EXACT_LEN(sizeof(struct zt_pid_bps)),
	[ZT_ATTR_B] = NLA_POLICY_EXACT_LEN(sizeof(struct zt_pid_boost)),
};

static const struct genl_ops zt_zeb_ops[] = {
	{ .cmd = ZT_CMD_SUGG, .doit = zt_zeb_doit },
	{ .cmd = ZT_CMD_SEG, .doit = zt_zeb_doit },
	{ .cmd = ZT_CMD_SYNC, .doit = zt_zeb_doit },
};

static const struct genl_ops zt_core_ops[] = {
	{ .cmd = ZT_CMD_PID_BPS, .doit = zt_core_doit },
	{ .cmd = ZT_CMD_PID_BOOST, .doit = zt_core_doit },
};

/*
 * resv_start_op past the last command: the daemon never writes the generic
 * header's reserved field, which must then not be checked. parallel_ops lets a
 * sync sleep without holding up the other family.
 */
static struct genl_family zt_zeb_family = {
	.name = "DULOX_ZEB",
	.version = 1,
	.maxattr = ZT_ATTR_MAX,
	.policy = zt_zeb_policy,
	.parallel_ops = true,
	.module = THIS_MODULE,
	.ops = zt_zeb_ops,
	.n_ops = ARRAY_SIZE(zt_zeb_ops),
	.resv_start_op = ZT_CMD_SYNC + 1,
};

static struct genl_family zt_core_family = {
	.name = "DULOX_CORE",
	.version = 1,
	.maxattr = ZT_ATTR_MAX,
	.policy = zt_core_policy,
	.parallel_ops = true,
	.module = THIS_MODULE,
	.ops = zt_core_ops,
	.n_ops = ARRAY_SIZE(zt_core_ops),
	.resv_start_op = ZT_CMD_PID_BOOST + 1,
};

static int zt_table_mmap(struct file *file, struct vm_area_struct *vma)
{
	void *page = pde_data(file_inode(file));

	if (vma->vm_pgoff || vma->vm_end - vma->vm_start > PAGE_SIZE)
		return -EINVAL;
	/* A counted reference: a mapping outlives an unload without harm. */
	return vm_insert_page(vma, vma->vm_start, virt_to_page(page));
}

static ssize_t zt_table_read(struct file *file, char __user *buf, size_t count, loff_t *pos)
{
	return simple_read_from_buffer(buf, count, pos, pde_data(file_inode(file)), PAGE_SIZE);
}

static const struct proc_ops zt_table_ops = {
	.proc_mmap = zt_table_mmap,
	.proc_read = zt_table_read,
	.proc_lseek = default_llseek,
};

static ssize_t zt_transcript_read(struct file *file, char __user *buf, size_t count, loff_t *pos)
{
	ssize_t n;

	mutex_lock(&zt_lock);
	n = simple_read_from_buffer(buf, count, pos, zt_transcript, zt_transcript_len);
	mutex_unlock(&zt_lock);
	return n;
}

static const struct proc_ops zt_transcript_ops = {
	.proc_read = zt_transcript_read,
	.proc_lseek = default_llseek,
};

static int zt_kind(const char *word)
{
	int k;

	for (k = 0; k < ZT_KINDS; k++)
		if (!strcmp(word, zt_kind_names[k]))
			return k;
	return -1;
}

/* One control line; see README.md for the words. */
static int zt_control_line(const char *line)
{
	struct zt_flow f = {};
	unsigned long long a, b, c;
	unsigned int i, u, cpu, count = 1;
	char word[8];
	int code;

	if (sscanf(line, "cap %u %u %llu %llu %llu", &i, &cpu, &a, &b, &c) == 5 && i < ZT_CPUS) {
		zt_caps[i] = (struct zt_cap){ .pps = a, .avg_pps = b, .bps = c, .cpu = cpu };
	} else if (sscanf(line, "gold %x %u %llu %llu %llu", &u, &cpu, &a, &b, &c) == 5 ||
		   sscanf(line, "ss %x %u %llu %llu %llu", &u, &cpu, &a, &b, &c) == 5) {
		bool gold = line[0] == 'g';
		unsigned int *n = gold ? &zt_n_gold : &zt_n_ss;

		if (*n == ZT_FLOWS)
			return -ENOSPC;
		f = (struct zt_flow){ .rx_pps = a, .avg_pps = b, .rx_bps = c, .hash = u, .cpu = cpu };
		(gold ? zt_gold : zt_ss)[(*n)++] = f;
	} else if (sscanf(line, "proc %u %llu %u", &u, &a, &i) == 3) {
		if (zt_procs.list_len == ZT_PIDS)
			return -ENOSPC;
		zt_procs.list[zt_procs.list_len].pid = u;
		zt_procs.list[zt_procs.list_len].tx_bps = a;
		zt_procs.list[zt_procs.list_len++].boost_remaining_ms = i;
		zt_procs.valid = 1;
	} else if (sscanf(line, "stamp %llu", &a) == 1) {
		zt_procs.timestamp = a;
	} else if (sscanf(line, "code %7s %d %u", word, &code, &count) >= 2 && zt_kind(word) >= 0) {
		zt_armed[zt_kind(word)].code = code;
		zt_armed[zt_kind(word)].count = count;
	} else if (sscanf(line, "silent %u", &count) == 1) {
		zt_silent_syncs = count;
	} else if (sscanf(line, "delay %u", &u) == 1) {
		zt_sync_delay_ms = u;
	} else if (!strcmp(line, "clear")) {
		zt_n_gold = zt_n_ss = 0;
		memset(zt_caps, 0, sizeof(zt_caps));
		memset(&zt_procs, 0, sizeof(zt_procs));
	} else {
		return -EINVAL;
	}
	return 0;
}

static ssize_t zt_control_write(struct file *file, const char __user *buf, size_t count, loff_t *pos)
{
	char *text, *line, *rest;
	int err = 0;

	if (count >= PAGE_SIZE)
		return -E2BIG;
	text = memdup_user_nul(buf, count);
	if (IS_ERR(text))
		return PTR_ERR(text);
	mutex_lock(&zt_lock);
	rest = text;
	while (!err && (line = strsep(&rest, "\n"))) {
		line = strim(line);
		if (!*line || *line == '#')
			continue;
		err = zt_control_line(line);
		zt_note("control %s%s", line, err ? " => rejected" : "");
	}
	zt_publish();
	mutex_unlock(&zt_lock);
	kfree(text);
	return err ? err : count;
}

static const struct proc_ops zt_control_ops = {
	.proc_write = zt_control_write,
};

static void zt_free(void)
{
	int t;

	proc_remove(zt_dir);
	for (t = 0; t < ZT_TABLES; t++)
		free_page((unsigned long)zt_pages[t]);
	vfree(zt_transcript);
}

static int __init zt_init(void)
{
	int t, err;

	BUILD_BUG_ON(sizeof(struct zt_cap) != 26 || sizeof(struct zt_flow) != 30);
	BUILD_BUG_ON(sizeof(struct zt_sugg) != 12 || sizeof(struct zt_seg) != 8);
	BUILD_BUG_ON(sizeof(struct zt_pid_bps) != 528 || sizeof(struct zt_pid_boost) != 400);
	BUILD_BUG_ON(2 + ZT_FLOWS * sizeof(struct zt_flow) > PAGE_SIZE);

	zt_transcript = vzalloc(ZT_TRANSCRIPT_SIZE);
	zt_dir = proc_mkdir("zeb", NULL);
	err = -ENOMEM;
	if (!zt_transcript || !zt_dir)
		goto fail;
	for (t = 0; t < ZT_TABLES; t++) {
		zt_pages[t] = (void *)get_zeroed_page(GFP_KERNEL);
		if (!zt_pages[t] ||
		    !proc_create_data(zt_table_names[t], 0666, zt_dir, &zt_table_ops, zt_pages[t]))
			goto fail;
	}
	if (!proc_create("control", 0200, zt_dir, &zt_control_ops) ||
	    !proc_create("transcript", 0444, zt_dir, &zt_transcript_ops))
		goto fail;

	err = genl_register_family(&zt_zeb_family);
	if (err)
		goto fail;
	err = genl_register_family(&zt_core_family);
	if (err) {
		genl_unregister_family(&zt_zeb_family);
		goto fail;
	}
	zt_note("load zeb=%d core=%d", zt_zeb_family.id, zt_core_family.id);
	pr_info("zebtest: DULOX_ZEB=%d DULOX_CORE=%d\n", zt_zeb_family.id, zt_core_family.id);
	return 0;
fail:
	zt_free();
	return err;
}

static void __exit zt_exit(void)
{
	genl_unregister_family(&zt_core_family);
	genl_unregister_family(&zt_zeb_family);
	zt_free();
}

module_init(zt_init);
module_exit(zt_exit);
MODULE_LICENSE("GPL");
MODULE_DESCRIPTION("Test stand-in for the DULOX_ZEB steering module and DULOX_CORE driver");
