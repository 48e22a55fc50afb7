// SPDX-License-Identifier: GPL-2.0-only
/*
 * fcan - a pair of CAN FD controllers with one cable between them and faults on order, for tests
 *
 * fcan0 and fcan1 are real CAN devices to the kernel (kind "can", bit timing, states, counters), so what they report is
 * made by the kernel's own code. Orders are written to /sys/class/net/fcan0/fault:
 *
 *   bec TX RX          the error counters; state and error frame follow from them: 96 warning, 128 passive, 256 bus off
 *   hold 1, hold 0     no acknowledgement: the frame being sent stays, the queue fills; it goes out with hold 0
 *   raw CLASS B0..B7   an error frame of these class bits and bytes
 *
 * This file is a kernel module and under the GPL (see COPYING); it is no part of the programs beside it.
 */
#include <linux/can/dev.h>
#include <linux/can/error.h>
#include <linux/module.h>
#include <linux/netdevice.h>

struct fcan {
	struct can_priv can; /* must be first */
	struct net_device *peer;
	struct sk_buff *held;
	struct can_berr_counter bec;
	bool hold;
};

static struct net_device *fcan_devices[2];

static const struct can_bittiming_const fcan_timing = {
	.name = "fcan",
	.tseg1_min = 2, .tseg1_max = 256, .tseg2_min = 1, .tseg2_max = 128,
	.sjw_max = 128, .brp_min = 1, .brp_max = 512, .brp_inc = 1,
};

static void fcan_receive(struct net_device *dev, const struct sk_buff *sent)
{
	struct fcan *to = netdev_priv(dev);
	bool fd = can_is_canfd_skb(sent);
	struct canfd_frame *frame;
	struct sk_buff *skb;

	if (!netif_running(dev) || to->can.state == CAN_STATE_BUS_OFF)
		return;
	if (fd && !(to->can.ctrlmode & CAN_CTRLMODE_FD))
		return;
	skb = fd ? alloc_canfd_skb(dev, &frame) : alloc_can_skb(dev, (struct can_frame **)&frame);
	if (!skb) {
		dev->stats.rx_dropped++;
		return;
	}
	memcpy(frame, sent->data, sent->len);
	skb_hwtstamps(skb)->hwtstamp = ktime_get();
	dev->stats.rx_packets++;
	dev->stats.rx_bytes += frame->len;
	netif_rx(skb);
}

static void fcan_complete(struct net_device *dev, struct sk_buff *skb)
{
	struct fcan *me = netdev_priv(dev);

	fcan_receive(me->peer, skb);
	dev->stats.tx_packets++;
	dev->stats.tx_bytes += can_skb_get_data_len(skb);
	if (!can_put_echo_skb(skb, dev, 0, 0))
		can_get_echo_skb(dev, 0, NULL);
}

static netdev_tx_t fcan_xmit(struct sk_buff *skb, struct net_device *dev)
{
	struct fcan *me = netdev_priv(dev);

	if (can_dev_dropped_skb(dev, skb))
		return NETDEV_TX_OK;
	/* The queue hears late of the lost carrier. */
	if (me->can.state == CAN_STATE_BUS_OFF) {
		dev->stats.tx_dropped++;
		dev_kfree_skb_any(skb);
		return NETDEV_TX_OK;
	}
	if (me->hold) {
		netif_stop_queue(dev);
		me->held = skb;
		return NETDEV_TX_OK;
	}
	fcan_complete(dev, skb);
	return NETDEV_TX_OK;
}

static void fcan_set_hold(struct net_device *dev, bool hold)
{
	struct fcan *me = netdev_priv(dev);

	netif_tx_lock_bh(dev);
	me->hold = hold;
	if (!hold && me->held) {
		fcan_complete(dev, me->held);
		me->held = NULL;
		netif_wake_queue(dev);
	}
	netif_tx_unlock_bh(dev);
}

static int fcan_raw(struct net_device *dev, u32 class, const u8 *bytes)
{
	struct can_frame *frame;
	struct sk_buff *skb = alloc_can_err_skb(dev, &frame);

	if (!skb)
		return -ENOMEM;
	frame->can_id |= class;
	memcpy(frame->data, bytes, CAN_ERR_DLC);
	netif_rx(skb);
	return 0;
}

static enum can_state fcan_state(unsigned int counter)
{
	return counter >= 256 ? CAN_STATE_BUS_OFF : counter >= 128 ? CAN_STATE_ERROR_PASSIVE :
	       counter >= 96 ? CAN_STATE_ERROR_WARNING : CAN_STATE_ERROR_ACTIVE;
}

static int fcan_bec(struct net_device *dev, unsigned int tx, unsigned int rx)
{
	struct fcan *me = netdev_priv(dev);
	enum can_state tx_state = fcan_state(tx), rx_state = fcan_state(rx);
	struct can_frame *frame;
	struct sk_buff *skb = alloc_can_err_skb(dev, &frame);

	if (!skb)
		return -ENOMEM;
	me->bec.txerr = tx;
	me->bec.rxerr = rx;
	if (max(tx_state, rx_state) != me->can.state)
		can_change_state(dev, frame, tx_state, rx_state);
	if (me->can.state == CAN_STATE_BUS_OFF) {
		can_bus_off(dev);
	} else {
		frame->can_id |= CAN_ERR_CNT;
		frame->data[6] = min(tx, 255u);
		frame->data[7] = min(rx, 255u);
	}
	netif_rx(skb);
	return 0;
}

static ssize_t fault_store(struct device *device, struct device_attribute *attribute, const char *text, size_t size)
{
	struct net_device *dev = to_net_dev(device);
	unsigned int a, b;
	u32 class;
	u8 d[CAN_ERR_DLC];
	int error = -EINVAL;

	rtnl_lock();
	if (!netif_running(dev)) {
		error = -ENETDOWN;
	} else if (sscanf(text, "bec %u %u", &a, &b) == 2) {
		error = fcan_bec(dev, a, b);
	} else if (sscanf(text, "hold %u", &a) == 1) {
		fcan_set_hold(dev, a);
		error = 0;
	} else if (sscanf(text, "raw %x %hhx %hhx %hhx %hhx %hhx %hhx %hhx %hhx", &class, &d[0], &d[1], &d[2], &d[3],
			  &d[4], &d[5], &d[6], &d[7]) == 9) {
		error = fcan_raw(dev, class, d);
	}
	rtnl_unlock();
	return error ? error : size;
}
static DEVICE_ATTR_WO(fault);

static struct attribute *fcan_attributes[] = { &dev_attr_fault.attr, NULL };
static const struct attribute_group fcan_group = { .attrs = fcan_attributes };

static int fcan_open(struct net_device *dev)
{
	struct fcan *me = netdev_priv(dev);
	int error = open_candev(dev);

	if (error)
		return error;
	me->can.state = CAN_STATE_ERROR_ACTIVE;
	memset(&me->bec, 0, sizeof(me->bec));
	netif_start_queue(dev);
	return 0;
}

static int fcan_stop(struct net_device *dev)
{
	struct fcan *me = netdev_priv(dev);

	netif_tx_disable(dev);
	me->hold = false;
	dev_kfree_skb(me->held);
	me->held = NULL;
	close_candev(dev);
	me->can.state = CAN_STATE_STOPPED;
	return 0;
}

static int fcan_set_mode(struct net_device *dev, enum can_mode mode)
{
	struct fcan *me = netdev_priv(dev);

	if (mode != CAN_MODE_START)
		return -EOPNOTSUPP;
	me->can.state = CAN_STATE_ERROR_ACTIVE;
	memset(&me->bec, 0, sizeof(me->bec));
	netif_wake_queue(dev);
	return 0;
}

static int fcan_get_bec(const struct net_device *dev, struct can_berr_counter *bec)
{
	const struct fcan *me = netdev_priv(dev);

	*bec = me->bec;
	return 0;
}

static const struct net_device_ops fcan_ops = {
	.ndo_open = fcan_open,
	.ndo_stop = fcan_stop,
	.ndo_start_xmit = fcan_xmit,
	.ndo_change_mtu = can_change_mtu,
};

static void fcan_remove(void)
{
	int i;

	for (i = 0; i < 2; i++) {
		if (fcan_devices[i] && fcan_devices[i]->reg_state == NETREG_REGISTERED)
			unregister_candev(fcan_devices[i]);
	}
	for (i = 0; i < 2; i++) {
		if (fcan_devices[i])
			free_candev(fcan_devices[i]);
	}
}

static int __init fcan_init(void)
{
	int i, error = -ENOMEM;

	for (i = 0; i < 2; i++) {
		struct net_device *dev = alloc_candev(sizeof(struct fcan), 1);
		struct fcan *me;

		if (!dev)
			goto failed;
		fcan_devices[i] = dev;
		strscpy(dev->name, "fcan%d", IFNAMSIZ);
		dev->netdev_ops = &fcan_ops;
		dev->flags |= IFF_ECHO;
		dev->sysfs_groups[0] = &fcan_group;
		me = netdev_priv(dev);
		me->can.clock.freq = 80000000;
		me->can.bittiming_const = &fcan_timing;
		me->can.data_bittiming_const = &fcan_timing;
		me->can.ctrlmode_supported = CAN_CTRLMODE_FD | CAN_CTRLMODE_LISTENONLY | CAN_CTRLMODE_BERR_REPORTING;
		me->can.do_set_mode = fcan_set_mode;
		me->can.do_get_berr_counter = fcan_get_bec;
	}
	for (i = 0; i < 2; i++) {
		struct fcan *me = netdev_priv(fcan_devices[i]);

		me->peer = fcan_devices[!i];
		error = register_candev(fcan_devices[i]);
		if (error)
			goto failed;
	}
	return 0;
failed:
	fcan_remove();
	return error;
}

module_init(fcan_init);
module_exit(fcan_remove);
MODULE_DESCRIPTION("A pair of CAN FD controllers with faults on order, for tests");
MODULE_LICENSE("GPL");
